/// Where Wine doesn't do what the API's documentation says, and tests of ours are skipped for it. A test here fails
/// when a later Wine does better: then it goes, and the marks that name it.

#include "tests/support/OneHost.h"

#include <winsock2.h>

#include <windows.h>

#include <shlwapi.h>
#include <wininet.h>

#include <future>
#include <string>
#include <thread>

namespace
{
/// A file of one byte, gone at the end.
struct OneByte
{
    OneByte()
    {
        wchar_t folder[MAX_PATH];
        GetTempPathW(MAX_PATH, folder);
        GetTempFileNameW(folder, L"one", 0, path);
        HANDLE const file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        DWORD written = 0;
        WriteFile(file, "x", 1, &written, nullptr);
        CloseHandle(file);
    }
    ~OneByte()
    {
        SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(path);
    }
    /// True if it goes so.
    bool Open(DWORD access, DWORD disposition) const
    {
        HANDLE const file = CreateFileW(path, access, 0, nullptr, disposition, 0, nullptr);
        return file != INVALID_HANDLE_VALUE && CloseHandle(file);
    }

    wchar_t path[MAX_PATH];
};

/// A key of the registry with one value, gone at the end.
struct OneValue
{
    OneValue(DWORD type, std::wstring const & text, DWORD size)
    {
        RegCreateKeyExW(HKEY_CURRENT_USER, L"KvxWine", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        RegSetValueExW(key, L"v", 0, type, reinterpret_cast<BYTE const *>(text.data()), size);
    }
    ~OneValue()
    {
        RegCloseKey(key);
        SHDeleteKeyW(HKEY_CURRENT_USER, L"KvxWine");
    }

    HKEY key = nullptr;
};
} // namespace

TEST(Wine, NamesHaveNoLimit)
{
    HANDLE const event = CreateEventW(nullptr, FALSE, FALSE, std::wstring(MAX_PATH + 1, L'n').c_str());
    EXPECT_TRUE(CloseHandle(event));
}

TEST(Wine, HandlesAreNotCounted)
{
    DWORD count = 1;
    EXPECT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &count) && count == 0);
}

TEST(Wine, Utf8HasADefault)
{
    BOOL used = FALSE;
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"a", 1, nullptr, 0, nullptr, &used), 1);
}

TEST(Wine, TruncatesWithoutWriting)
{
    EXPECT_TRUE(OneByte().Open(GENERIC_READ, TRUNCATE_EXISTING));
}

TEST(Wine, ReadOnlyFilesAreWritten)
{
    OneByte const file;
    SetFileAttributesW(file.path, FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(file.Open(GENERIC_WRITE, OPEN_EXISTING)); // by the superuser
}

TEST(Wine, ThereAreDaysThatAreNone)
{
    FILETIME time;
    SYSTEMTIME const february{2023, 2, 0, 29, 0, 0, 0, 0};
    SYSTEMTIME const tooLate{30828, 1, 0, 1, 0, 0, 0, 0};
    EXPECT_TRUE(SystemTimeToFileTime(&february, &time) && SystemTimeToFileTime(&tooLate, &time));
}

TEST(Wine, BothViewsAreOne)
{
    OneValue const value(REG_SZ, L"x", 4);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(value.key, nullptr, 0, KEY_READ | KEY_WOW64_64KEY | KEY_WOW64_32KEY, &key), 0);
    RegCloseKey(key);
}

TEST(Wine, TinyBuffersOverflow)
{
    OneValue const value(REG_SZ, L"xx", 1);
    BYTE buffer[4] = {'#', '#', '#', '#'};
    DWORD size = 1;
    EXPECT_EQ(RegQueryValueExW(value.key, L"v", nullptr, nullptr, buffer, &size), 0);
    EXPECT_TRUE(buffer[0] == 'x' && buffer[1] == 0);
}

TEST(Wine, SizesOfTexts)
{
    OneValue const value(REG_EXPAND_SZ, L"100%#", 8);
    wchar_t text[16] = {};
    DWORD size = sizeof(text);
    EXPECT_EQ(SHQueryValueExW(value.key, L"v", nullptr, nullptr, text, &size), 0);
    EXPECT_EQ(size, 8u); // without the terminator
}

TEST(Wine, ProfilesGiveNoErrors)
{
    OneByte const file;
    wchar_t text[4];
    SetLastError(77);
    EXPECT_EQ(GetPrivateProfileStringW(L"none", L"none", L"default", text, 4, file.path), 3u);
    EXPECT_TRUE(GetLastError() != ERROR_MORE_DATA && GetLastError() != ERROR_FILE_NOT_FOUND);
}

TEST(Wine, UrlsAreDecodedIntoTheUrl)
{
    URL_COMPONENTSW parts{};
    parts.dwStructSize = sizeof(parts);
    parts.dwHostNameLength = 1;
    EXPECT_TRUE(InternetCrackUrlW(L"http://host/", 0, ICU_DECODE, &parts));
    wchar_t room[4];
    parts.lpszHostName = room;
    parts.dwHostNameLength = 4;
    EXPECT_FALSE(InternetCrackUrlW(L"http://host/", 0, 0, &parts));
    EXPECT_EQ(parts.dwHostNameLength, 4u);
}

TEST(Wine, QuestionMarksAreOneCharacter)
{
    WIN32_FIND_DATAW data;
    HANDLE const folder = FindFirstFileW(L"C:\\windows?????????", &data); // also matches none
    EXPECT_EQ(folder, INVALID_HANDLE_VALUE);
}

TEST(Wine, LongTemporaryFolders)
{
    wchar_t name[2 * MAX_PATH] = {};
    EXPECT_EQ(GetTempFileNameW((L"C:" + std::wstring(250, L'\\')).c_str(), L"p", 1, name), 1u);
}

TEST(Wine, ShortAddressIsAnotherFamily)
{
    WSADATA data;
    EXPECT_EQ(WSAStartup(0x0202, &data), 0);
    EXPECT_FALSE(gethostbyaddr("1234", 3, AF_INET));
    EXPECT_EQ(WSAGetLastError(), WSAEAFNOSUPPORT);
}

TEST(Wine, PipesTakeAnyMode)
{
    HANDLE const pipe = CreateNamedPipeW(L"\\\\.\\pipe\\KvxWine", PIPE_ACCESS_DUPLEX | 0x10, 0, 1, 0, 0, 0, nullptr);
    EXPECT_TRUE(CloseHandle(pipe));
}

TEST(Wine, WaitsForTheSameTwice)
{
    HANDLE const event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    HANDLE const pair[] = {event, event};
    EXPECT_EQ(WaitForMultipleObjects(2, pair, TRUE, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(event));
}

TEST(Wine, EndedThreadsAreTerminated)
{
    HANDLE const thread = CreateThread(
        nullptr, 0, [](void *) -> DWORD { return 7; }, nullptr, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    EXPECT_TRUE(TerminateThread(thread, 1));
    EXPECT_TRUE(CloseHandle(thread));
}

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
