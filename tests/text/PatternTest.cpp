#include "tests/support/Raised.h"

#include "kvx/text/StringPattern.h"

#include <gtest/gtest.h>

TEST(Pattern, Matches)
{
    struct Case
    {
        LPCTSTR pattern;
        LPCTSTR text;
        bool bMatch;
    };
    for (Case const & c :
         {Case{_T("a*"), _T("a"), true}, Case{_T("a*"), _T("abc"), true}, Case{_T("a*"), _T("ba"), false},
          Case{_T("*"), _T(""), true}, Case{_T("**"), _T("x"), true}, Case{_T(""), _T(""), true},
          Case{_T(""), _T("a"), false}, Case{_T("a"), _T("A"), false}, Case{_T("ab"), _T("a"), false},
          Case{_T("a*b*c"), _T("aXbYc"), true}, Case{_T("a*b*c"), _T("aXbYcZ"), false},
          Case{_T("*abc"), _T("abcxabc"), false}, Case{_T("*abc*"), _T("abcxabc"), true},
          Case{_T("a*a"), _T("a"), false}, Case{_T("a?"), _T("ab"), false}, Case{_T("a**b"), _T("ab"), true}})
    {
        EXPECT_EQ(CStringPattern(c.pattern).Match(c.text) != 0, c.bMatch)
            << CStringA(c.pattern) << " on " << CStringA(c.text);
    }
    CStringPattern pattern;
    EXPECT_TRUE(pattern.IsEmpty() && pattern.Match(_T("")));
    pattern = _T("x*");
    CStringPattern const copy = pattern;
    pattern.FromString(_T("y"));
    EXPECT_EQ(copy.ToString() + pattern.ToString(), _T("x*y"));
}

TEST(Pattern, GoesThroughAnArchive)
{
    for (LPCTSTR const text : {_T(""), _T("a*\u20ac")})
    {
        CMemFile file;
        CStringPattern pattern(text);
        {
            CArchive archive(&file, CArchive::store);
            pattern.Serialize(archive);
        }
        EXPECT_EQ(file.GetLength(), 4u + 2u * static_cast<unsigned>(pattern.GetLength()));
        file.SeekToBegin();
        CArchive archive(&file, CArchive::load);
        CStringPattern loaded(_T("old"));
        loaded.Serialize(archive);
        EXPECT_EQ(loaded.ToString(), text);
    }
    BYTE const absurd[] = {0xFF, 0xFF, 0xFF, 0xFF, 'a', 0};
    CMemFile file(const_cast<BYTE *>(absurd), sizeof(absurd));
    CArchive archive(&file, CArchive::load);
    CStringPattern kept(_T("kept"));
    EXPECT_EQ(CauseOf([&] { kept.Serialize(archive); }), CArchiveException::endOfFile);
    EXPECT_EQ(kept.ToString(), _T("kept"));
}
