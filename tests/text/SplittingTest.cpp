#include "kvx/foundation/Dictionary.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/text/StringTokenizer.h"

#include <gtest/gtest.h>

namespace
{
template <class COLLECTION>
CString Joined(COLLECTION const & texts)
{
    CString out;
    if constexpr (std::is_same_v<COLLECTION, CStringList>)
    {
        for (POSITION pos = texts.GetHeadPosition(); pos;)
        {
            out += _T("[") + texts.GetNext(pos) + _T("]");
        }
    }
    else
    {
        for (int i = 0; i < texts.GetSize(); ++i)
        {
            out += _T("[") + texts.GetAt(i) + _T("]");
        }
    }
    return out;
}

CString Tokens(LPCTSTR source, LPCTSTR delimiter)
{
    CStringList tokens;
    CStringTokenizer().Tokenize(tokens, source, delimiter);
    return Joined(tokens);
}

CString Words(LPCTSTR line)
{
    CStringArray words;
    int const count = CUtilities::TokenizeCommandLine(line, words);
    EXPECT_EQ(count, words.GetSize());
    return Joined(words);
}
} // namespace

TEST(Tokenizer, CutsAtAWholeText)
{
    EXPECT_EQ(Tokens(_T("a,,b"), _T(",")), _T("[a][][b]"));
    EXPECT_EQ(Tokens(_T(",a,"), _T(",")), _T("[][a]"));
    EXPECT_EQ(Tokens(_T(","), _T(",")), _T("[]"));
    EXPECT_EQ(Tokens(_T(",,"), _T(",")), _T("[][]"));
    EXPECT_EQ(Tokens(_T("a--b-c"), _T("--")), _T("[a][b-c]"));
    EXPECT_EQ(Tokens(_T("abc"), _T("")), _T("[abc]"));
    EXPECT_EQ(Tokens(_T(""), _T(",")), _T(""));
    EXPECT_EQ(Tokens(_T("a b"), nullptr), _T("[a][b]")); // a blank is the delimiter of a new tokenizer
}

TEST(Tokenizer, ChangesDelimiterAndGivesTheRemainder)
{
    CStringTokenizer tokens(_T("a:b,c,d e"), _T(":"));
    CString text;
    EXPECT_TRUE(tokens.IsValid());
    EXPECT_EQ(tokens.GetNext(), _T("a"));
    EXPECT_EQ(tokens.GetNext(_T(",")), _T("b"));
    EXPECT_TRUE(tokens.GetRemainder(text, 0));
    EXPECT_EQ(text, _T("c,d e"));
    EXPECT_EQ(tokens.GetNext(), _T("c"));
    EXPECT_EQ(tokens.GetNext(_T(" ")), _T("d"));
    EXPECT_TRUE(tokens.GetRemainder(text, 1));
    EXPECT_EQ(text, _T("e"));
    EXPECT_FALSE(tokens.GetRemainder(text, 1));
    EXPECT_EQ(text, _T(""));
    text = _T("x");
    EXPECT_FALSE(tokens.GetNextString(text));
    EXPECT_EQ(text, _T(""));
    tokens.Restart();
    EXPECT_TRUE(tokens.IsValid());
    EXPECT_EQ(tokens.GetNext(), _T("a:b,c,d"));
    EXPECT_EQ(tokens.GetSource(&text) + text, _T("a:b,c,d e "));

    tokens.SetSource(_T("1,2"), _T(","));
    EXPECT_TRUE(tokens.GetRemainder(text, 0));
    EXPECT_EQ(text + tokens.GetNext(), _T("1,21"));
    EXPECT_FALSE(CStringTokenizer().IsValid());
}

TEST(Split, FirstAndLastDelimiter)
{
    CString left;
    CString right;
    EXPECT_EQ(CUtilities::SplitString(_T("a.b.c"), left, right, _T("."), 1), 3);
    EXPECT_EQ(left + _T("|") + right, _T("a.b|c"));
    EXPECT_EQ(CUtilities::SplitString(left, left, right, _T("."), 0), 1);
    EXPECT_EQ(left + _T("|") + right, _T("a|b"));
    EXPECT_EQ(CUtilities::SplitString(_T("x::"), left, right, _T("::"), 0), 1);
    EXPECT_EQ(left + _T("|") + right, _T("x|"));
    EXPECT_EQ(CUtilities::SplitString(_T("none"), left, right, _T("."), 1), -1);
    EXPECT_EQ(left + _T("|") + right, _T("none|"));

    LPCTSTR const text = _T("abcabc");
    EXPECT_EQ(CUtilities::FindLastSubstring(text, _T("bc")) - text, 4);
    EXPECT_EQ(CUtilities::FindLastSubstring(text, _T("x")), nullptr);
    EXPECT_EQ(CUtilities::FindLastSubstring(text, nullptr), nullptr);
}

TEST(CommandLine, WordsAndQuotes)
{
    EXPECT_EQ(Words(_T("\"a b\" c")), _T("[a b][c]"));
    EXPECT_EQ(Words(_T(" \t a\"b c\" \"\" \"d\"skipped e")), _T("[a\"b][c\"][][d][e]"));
    EXPECT_EQ(Words(_T("x \"not closed \\\" y")), _T("[x][not closed \\][y]"));
    EXPECT_EQ(Words(_T("\"open end ")), _T("[open end ]"));
    EXPECT_EQ(Words(_T("  ")) + Words(nullptr) + Words(_T("")), _T(""));
    CStringArray words;
    words.Add(_T("first"));
    EXPECT_EQ(CUtilities::TokenizeCommandLine(_T("a"), words), 2);
}

TEST(CommandLine, Values)
{
    CDictionary values;
    values[_T("old")] = 1;
    EXPECT_EQ(CUtilities::TokenizeCommandLine(_T("-x=1 /y z --/w==a \"-q=b c\" -=5"), values), 6);
    EXPECT_EQ(values.ToString(0, _T("|")), _T("x=1|y=1|z=1|w==a|q=\"b c\"|=5=1"));
}
