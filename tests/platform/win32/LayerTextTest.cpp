/// What the layer has for texts beyond the API.

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/upcase.h"

#include <gtest/gtest.h>

#include <tuple>

namespace
{

TEST(AnsiPage, CanBeSet)
{
    for (auto const & [nPage, nNow, pszText] : {std::tuple(0u, 1252u, _T("\u00C6")), {1251u, 1251u, _T("\u0416")}})
    {
        EXPECT_TRUE(kvx::win32::SetAnsiCodePage(nPage));
        EXPECT_FALSE(kvx::win32::SetAnsiCodePage(54321) || kvx::win32::SetAnsiCodePage(CP_THREAD_ACP));
        EXPECT_EQ(GetACP(), nNow);
        WCHAR c = 0;
        EXPECT_TRUE(MultiByteToWideChar(CP_ACP, 0, "\xC6", 1, &c, 1) == 1 && c == pszText[0]);
    }
    EXPECT_TRUE(kvx::win32::SetAnsiCodePage(0) && GetACP() == 1252);
}

TEST(UpCase, MapsBeyondAscii)
{
    EXPECT_TRUE(kvx::win32::IsSameName(_T("az\u00E4\u0101\u0436\u03C9\u0561"), _T("AZ\u00C4\u0100\u0416\u03A9\u0531")));
    EXPECT_FALSE(kvx::win32::IsSameName(_T("a["), _T("a{")));
    EXPECT_FALSE(kvx::win32::IsSameName(_T("\u00D7"), _T("\u00F7"))); // times and division lie 32 apart
    EXPECT_EQ(kvx::win32::UpCase(_T('\u0102')), _T('\u0102'));        // an upper-case letter between lower-case ones
    EXPECT_EQ(kvx::win32::UpCase(_T('\u00FF')), _T('\u0178'));
}

} // namespace
