#include "kvx/foundation/Utilities.h"

#include <gtest/gtest.h>

TEST(Conversions, TheTwoAnsiToStringReadDifferentEncodings)
{
    EXPECT_EQ(CUtilities::AnsiToString(CStringA("\xE9\x80")), _T("\u00e9\u20ac"));
    EXPECT_EQ(CUtilities::AnsiToString("\xC3\xA9"), _T("\u00e9"));
    EXPECT_EQ(CUtilities::AnsiToString(static_cast<char const *>(nullptr)), _T(""));
    EXPECT_EQ(CUtilities::StringToAnsi(_T("\u00e9\u20ac\u0416")), "\xE9\x80?");
    EXPECT_EQ(CUtilities::StringToAnsi(LPCTSTR{}), "");
}

TEST(Conversions, BetweenCodePages)
{
    CString const text = _T("a\u00e9\u20ac\U0001F600");
    CStringA const utf8 = CUtilities::W2MB(text, CP_UTF8);
    EXPECT_EQ(utf8, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(CUtilities::MB2T(utf8, CP_UTF8), text);
    EXPECT_EQ(CUtilities::MB2MB("\xE9\x80", CP_ACP, CP_UTF8), "\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(CUtilities::W2MB(CString(_T("a\0b"), 3), CP_UTF8).GetLength(), 3);
    CString const many(_T('\u20ac'), 100000);
    EXPECT_EQ(CUtilities::MB2W(CUtilities::T2MB(many, CP_UTF8), CP_UTF8), many);
    EXPECT_EQ(CUtilities::MB2W("", CP_UTF8), _T(""));
    EXPECT_EQ(CUtilities::MB2W("a", 54321) + CString(CUtilities::W2MB(_T("a"), 54321)), _T(""));
}
