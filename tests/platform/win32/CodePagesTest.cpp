#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/Wide.h"

#include <vector>

namespace
{

Wide Decode(UINT nPage, std::string const & strSource, DWORD dwFlags = 0)
{
    int const nSource = static_cast<int>(strSource.size());
    int const nUnits = MultiByteToWideChar(nPage, dwFlags, strSource.data(), nSource, nullptr, 0);
    Wide strTarget(static_cast<std::size_t>(nUnits), _T('x'));
    EXPECT_EQ(MultiByteToWideChar(nPage, dwFlags, strSource.data(), nSource, strTarget.data(), nUnits), nUnits);
    return strTarget;
}

std::string Encode(UINT nPage, Wide const & strSource, char const * pszDefault = nullptr, BOOL * pbUsed = nullptr)
{
    int const nSource = static_cast<int>(strSource.size());
    int const nBytes = WideCharToMultiByte(nPage, 0, strSource.data(), nSource, nullptr, 0, pszDefault, pbUsed);
    std::string strTarget(static_cast<std::size_t>(nBytes), 'x');
    EXPECT_EQ(WideCharToMultiByte(nPage, 0, strSource.data(), nSource, strTarget.data(), nBytes, pszDefault, pbUsed),
              nBytes);
    return strTarget;
}

TEST(CodePages, Utf8DecodesHostileBytes)
{
    struct Case
    {
        std::string strBytes;
        Wide strText;
        bool bValid;
    };
    std::vector<Case> const cases = {
        {"plain ascii that is longer than one block, and then some",
         _T("plain ascii that is longer than one block, and then some"), true},
        {"sixteen bytes...\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z", _T("sixteen bytes...\u00E4\u20AC\U0001F600z"), true},
        {std::string("a\0b", 3), Wide(_T("a\0b"), 3), true},
        {"\xF4\x8F\xBF\xBF", _T("\U0010FFFF"), true},
        {"\x80", _T("\uFFFD"), false},
        {"\xC3", _T("\uFFFD"), false},
        {"\xC0\xAF", _T("\uFFFD\uFFFD"), false}, // an overlong slash
        {"\xE0\x80\xAF", _T("\uFFFD\uFFFD\uFFFD"), false},
        {"\xED\xA0\x80", _T("\uFFFD\uFFFD\uFFFD"), false}, // a surrogate
        {"\xF4\x90\x80\x80", _T("\uFFFD\uFFFD\uFFFD\uFFFD"), false},
        {"\xE2\x82"
         "A",
         _T("\uFFFD")
         _T("A"),
         false}, // cut short, the next byte stays
        {"\xF0\x9F\x98", _T("\uFFFD"), false},
        {"\xFF\xFE", _T("\uFFFD\uFFFD"), false},
    };
    for (Case const & test : cases)
    {
        SCOPED_TRACE(testing::PrintToString(test.strBytes));
        Wide const strText = Decode(CP_UTF8, test.strBytes);
        if (host::IsWindows()) // as many replacements as it likes, at least one (2026-11-22)
        {
            EXPECT_EQ(strText.substr(0, 1), test.strText.substr(0, 1));
            EXPECT_TRUE(strText == test.strText || strText.find_first_not_of(0xFFFD) == strText.npos);
        }
        else
        {
            EXPECT_EQ(strText, test.strText);
        }
        SetLastError(0);
        int const nUnits = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, test.strBytes.data(),
                                               static_cast<int>(test.strBytes.size()), nullptr, 0);
        EXPECT_EQ(nUnits != 0, test.bValid);
        EXPECT_EQ(GetLastError(), test.bValid ? 0u : DWORD{ERROR_NO_UNICODE_TRANSLATION});
    }
}

TEST(CodePages, Utf8EncodesLoneSurrogatesAsReplacement)
{
    Wide const strText = {_T('a'), 0xD800, _T('b'), 0xDC00, 0xD83D, 0xDE00, 0x7FF, 0xFFFF, 0xDBFF};
    std::string const strBytes = "a\xEF\xBF\xBD"
                                 "b\xEF\xBF\xBD\xF0\x9F\x98\x80\xDF\xBF\xEF\xBF\xBF\xEF\xBF\xBD";
    EXPECT_EQ(Encode(CP_UTF8, strText), strBytes);
    EXPECT_TRUE(
        Fails(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, strText.data(), 2, nullptr, 0, nullptr, nullptr),
              ERROR_NO_UNICODE_TRANSLATION));
}

TEST(CodePages, CountsAndBuffersFollowTheRules)
{
    // The zero counts with -1, and only then.
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", -1, nullptr, 0), 4);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, 0), 3);
    EXPECT_EQ(WideCharToMultiByte(1252, 0, _T("abc"), -1, nullptr, 0, nullptr, nullptr), 4);
    EXPECT_EQ(WideCharToMultiByte(437, 0, _T("abc"), -1, nullptr, 0, nullptr, nullptr), 4);

    // What fits is written, nothing behind it, and no half characters.
    for (UINT const nPage : {UINT{CP_UTF8}, 1252u, 437u})
    {
        SCOPED_TRACE(nPage);
        WCHAR wide[4] = {_T('#'), _T('#'), _T('#'), _T('#')};
        EXPECT_TRUE(Fails(MultiByteToWideChar(nPage, 0, "abcdef", -1, wide, 3), ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(Wide(wide, 4), _T("abc#"));
        char narrow[4] = {'#', '#', '#', '#'};
        EXPECT_TRUE(Fails(WideCharToMultiByte(nPage, 0, _T("abcdef"), -1, narrow, 3, nullptr, nullptr),
                          ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(std::string(narrow, 4), "abc#");
    }
    char half[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, _T("ab\u20AC"), 3, half, 4, nullptr, nullptr), 0);
    EXPECT_EQ(std::string(half, 4), "ab##");

    struct Bad
    {
        UINT nPage;
        char const * pszSource;
        int nSource;
        int nTarget;
    };
    for (Bad const & bad : {Bad{CP_UTF8, nullptr, 1, 0}, Bad{CP_UTF8, "a", 0, 0}, Bad{CP_UTF8, "a", 1, -1},
                            Bad{CP_UTF8, "a", 1, 5}, // a size, but no buffer
                            Bad{54321, "a", 1, 0}, Bad{1200, "ab", 2, 0}, Bad{0xFFFFFFFF, "a", 1, 0}})
    {
        SetLastError(0);
        EXPECT_TRUE(Fails(MultiByteToWideChar(bad.nPage, 0, bad.pszSource, bad.nSource, nullptr, bad.nTarget),
                          ERROR_INVALID_PARAMETER))
            << bad.nPage << ' ' << bad.nSource;
    }
    EXPECT_TRUE(Fails(MultiByteToWideChar(CP_UTF8, 0x4000, "a", 1, nullptr, 0), ERROR_INVALID_FLAGS));
    BOOL bUsed = FALSE;
    if (!host::IsWine()) // tells it (Utf8HasADefault, 2026-11-22)
    {
        EXPECT_TRUE(
            Fails(WideCharToMultiByte(CP_UTF8, 0, _T("a"), 1, nullptr, 0, nullptr, &bUsed), ERROR_INVALID_PARAMETER));
    }
}

TEST(CodePages, SingleBytePagesGoThereAndBack)
{
    std::string strAll;
    for (int n = 0; n < 256; ++n)
    {
        strAll += static_cast<char>(n);
    }
    for (UINT const nPage : {1252u, 28591u, 437u, 1251u})
    {
        SCOPED_TRACE(nPage);
        Wide const strWide = Decode(nPage, strAll);
        ASSERT_EQ(strWide.size(), 256u);
        if (nPage != 1251) // which has a hole
        {
            EXPECT_EQ(Encode(nPage, strWide), strAll);
        }
    }
    EXPECT_EQ(Decode(1252, "\x80\x8D\x9F\xE4"), _T("\u20AC\u008D\u0178\u00E4"));
    EXPECT_EQ(Decode(20127, "a\x80").substr(0, host::IsWindows() ? 1 : 2), // its tables have other replacements
              host::IsWindows() ? _T("a") : _T("a\uFFFD"));

    BOOL bUsed = 7;
    EXPECT_EQ(Encode(1252, _T("\u20AC\u0416\U0001F600\u0080"), nullptr, &bUsed), "\x80????");
    EXPECT_EQ(bUsed, TRUE);
    EXPECT_EQ(Encode(1252, _T("abc\u00E4"), "*", &bUsed), "abc\xE4");
    EXPECT_EQ(bUsed, FALSE);
    EXPECT_EQ(Encode(28591, _T("\u20AC"), "*"), "*");
}

TEST(CodePages, OtherPagesGoThroughTheHost)
{
    std::string const strShiftJis = "\x93\xFA\x96{"; // the second byte of a character may be an ASCII one
    EXPECT_EQ(Decode(932, strShiftJis), _T("\u65E5\u672C"));
    EXPECT_EQ(Encode(932, _T("\u65E5\u672C")), strShiftJis);
    EXPECT_EQ(Encode(932, _T("a\U0001F600b"), "-"), "a--b");
    EXPECT_EQ(Decode(932, "a\x93"), host::IsWindows() ? _T("a\u30FB") : _T("a\uFFFD")); // its table's replacement
    EXPECT_TRUE(
        Fails(MultiByteToWideChar(932, MB_ERR_INVALID_CHARS, "a\x93", 2, nullptr, 0), ERROR_NO_UNICODE_TRANSLATION));

    // Longer than the buffer between, with the error at its border.
    Wide strLong(1000, _T('\u65E5'));
    strLong[300] = 0xD800;
    std::string strExpected;
    for (WCHAR const c : strLong)
    {
        strExpected += c == 0xD800 ? "?" : "\x93\xFA";
    }
    EXPECT_EQ(Encode(932, strLong), strExpected);
    // 1258 keeps a letter back until it knows whether an accent follows.
    EXPECT_EQ(Decode(1258, "a"), _T("a"));
}

} // namespace
