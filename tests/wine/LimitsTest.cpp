/// Where Wine doesn't do what the API's documentation says, and tests of ours are skipped for it. A test here fails
/// when a later Wine does better: then it goes, and the marks that name it.

#include "tests/support/OneHost.h"

#include <windows.h>

#include <future>
#include <thread>

TEST(Wine, CutModuleNamesHaveNoEnd)
{
    WCHAR path[6] = L"xxxxx";
    EXPECT_EQ(GetModuleFileNameW(nullptr, path, 3), 3U);
    EXPECT_NE(path[2], 0);
}

TEST(Wine, NoNameIsAMissingModule)
{
    EXPECT_EQ(LoadLibraryW(L""), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND)); // and not 87
}

TEST(Wine, AWindowThatGoesDeniesAccess)
{
    std::promise<HWND> made;
    std::thread owner(
        [&]
        {
            made.set_value(
                CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr));
            Sleep(300); // and never looks at its messages
        });
    EXPECT_EQ(SendMessageW(made.get_future().get(), WM_USER, 0, 0), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED)); // and not 1400
    owner.join();
}

TEST(Wine, LinksAreMadeInWordsAlone)
{
    EXPECT_TRUE(CreateSymbolicLinkW(L"no-link", L"target", 0));
    EXPECT_EQ(GetFileAttributesW(L"no-link"), INVALID_FILE_ATTRIBUTES);
}
