#include "kvx/foundation/Utilities.h"
#include "kvx/hash/HttpFormatter.h"

#include "../support/Fails.h"

TEST(Escapes, EncodedTextsDontDecodeBack)
{
    EXPECT_EQ(CUtilities::EncodeString(_T("a b&\u00E9\u20AC%\n"), _T("&%"), '+'), _T("a+b%0026%00E9%20AC%0025%000A"));
    EXPECT_EQ(CUtilities::EncodeString(_T("+ +"), _T(" "), '_'), _T("+_+"));
    EXPECT_EQ(CUtilities::DecodeString(_T("a+b%41%4x%0026%"), '+'), CString(_T("a bDD\0")
                                                                            _T("26%"),
                                                                            9));
    EXPECT_EQ(CUtilities::DecodeString(_T("%f"), '+'), _T("\u00FF"));
    EXPECT_EQ(CHttpFormatter::Encode("a b.\xC3\xA9"), "a+b%002E%00E9");
    EXPECT_EQ(CHttpFormatter::Decode("a+%22\xC3\xA9"), "a \"\xE9");
}

TEST(Escapes, Utf8InAddressesGoesBothWays)
{
    CStringA encoded;
    CString text;
    EXPECT_EQ(CHttpFormatter::EncodeUtf8(_T("a b+\u00E9/\U0001F600~"), encoded), 1);
    EXPECT_EQ(encoded, "a%20b%2B%C3%A9%2F%F0%9F%98%80~");
    EXPECT_EQ(CHttpFormatter::DecodeUtf8(encoded, text), 1);
    EXPECT_EQ(text, _T("a b+\u00E9/\U0001F600~"));
    EXPECT_EQ(CHttpFormatter::DecodeUtf8("", text), 1);
    EXPECT_EQ(text, _T(""));
    EXPECT_EQ(CHttpFormatter::DecodeUtf8("%c3%a9+", text), 1);
    EXPECT_TRUE(Fails(CHttpFormatter::DecodeUtf8("x%4", text), ERROR_INVALID_DATA));
    EXPECT_TRUE(Fails(CHttpFormatter::DecodeUtf8("%g0", text), ERROR_INVALID_DATA));
    EXPECT_TRUE(Fails(CHttpFormatter::DecodeUtf8("%C3", text), ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(text, _T("\u00E9+"));
    WCHAR const half[] = {0xD800, 0};
    EXPECT_TRUE(Fails(CHttpFormatter::EncodeUtf8(half, encoded), ERROR_NO_UNICODE_TRANSLATION));
}

TEST(Escapes, WideCharactersInBytes)
{
    EXPECT_EQ(CUtilities::EscapeUnicode(_T("50% \u00E9\u20AC")), "50%% \xE9%20AC");
    EXPECT_EQ(CUtilities::UnescapeUnicode("50%% \xE9%20AC%%20AC"), _T("50% \u00E9\u20AC%20AC"));
    EXPECT_EQ(CUtilities::UnescapeUnicode("%20A"), _T("%20A"));
    EXPECT_EQ(CUtilities::UnescapeUnicode("%000a"), _T("\u002A")); // a small letter counts by its distance
    EXPECT_EQ(CUtilities::EscapeUnicode(nullptr), "");
    EXPECT_EQ(CUtilities::UnescapeUnicode(nullptr), _T(""));
}

TEST(Escapes, HexadecimalNumbers)
{
    EXPECT_EQ(CUtilities::HexStr2Int(_T("ff")) + CUtilities::HexStr2Int(_T("FF")), 510);
    EXPECT_EQ(CUtilities::HexStr2Int(_T("1g2")), 0x102);
    EXPECT_EQ(CUtilities::HexStr2Int(_T("1234567890")), 0x34567890);
    EXPECT_EQ(CUtilities::HexStr2Int(nullptr) + CUtilities::HexStr2Int(_T("")), 0);
}
