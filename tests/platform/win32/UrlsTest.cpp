#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/Wide.h"

#include <string>

TEST(Urls, PlacesInTheUrlAndRoomThatIsNeeded)
{
    KVX_NOT_UNDER_WINE("it tells no room that is needed; UrlsAreDecodedIntoTheUrl", "2026-11-22");
    Wide const url = _T("http://host/a%20b#x");
    URL_COMPONENTSW parts{};
    parts.dwStructSize = sizeof parts;
    parts.dwHostNameLength = 1;
    parts.dwUrlPathLength = 1;
    EXPECT_TRUE(InternetCrackUrlW(url.c_str(), 17, 0, &parts));
    EXPECT_EQ(parts.lpszHostName, url.data() + 7);
    EXPECT_EQ(Wide(parts.lpszUrlPath, parts.dwUrlPathLength), _T("/a%20b"));
    EXPECT_TRUE(parts.nPort == 80 && parts.nScheme == INTERNET_SCHEME_HTTP && !parts.lpszScheme);
    parts = {};
    parts.dwStructSize = sizeof parts;
    parts.dwHostNameLength = 1;
    EXPECT_TRUE(Fails(InternetCrackUrlW(url.c_str(), 0, ICU_DECODE, &parts), ERROR_INVALID_PARAMETER));
    WCHAR room[8] = _T("kept");
    parts.lpszHostName = room;
    parts.dwHostNameLength = 4;
    EXPECT_TRUE(Fails(InternetCrackUrlW(url.c_str(), 0, 0, &parts), ERROR_INSUFFICIENT_BUFFER));
    EXPECT_TRUE(parts.dwHostNameLength == 5 && Wide(room) == _T("kept"));
    EXPECT_TRUE(InternetCrackUrlW(url.c_str(), 0, 0, &parts));
    EXPECT_EQ(Wide(room), _T("host"));

    DWORD length = 8;
    parts.nScheme = INTERNET_SCHEME_FTP; // whose default port this is not
    EXPECT_TRUE(Fails(InternetCreateUrlW(&parts, 0, room, &length), ERROR_INSUFFICIENT_BUFFER));
    Wide made(length, _T('#'));
    EXPECT_TRUE(InternetCreateUrlW(&parts, 0, made.data(), &length));
    EXPECT_EQ(made.substr(0, length), _T("ftp://host:80"));
}
