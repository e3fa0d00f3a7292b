/// Files that Windows doesn't have, or shows otherwise: links, fifos, sockets, names of any bytes.

#include "FilesFixture.h"
#include "kvx/platform/win32/console.h"
#include "kvx/platform/win32/windows.h"
#include "tests/support/Fails.h"
#include "tests/support/Wide.h"

#include <csignal>
#include <map>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using HostFiles = Files;

namespace
{

TEST_F(HostFiles, OpenNothingForChildrenAndFollowDanglingLinks)
{
    Handle hFile = Open(_T("f"), READ_WRITE, OPEN_ALWAYS);
    for (auto const & entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        if (std::error_code error; std::filesystem::read_symlink(entry, error) == Host("f"))
        {
            EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_TRUE(hFile.Close());

    // Dangling links lead to where the file comes to be, or are told to exist.
    std::filesystem::create_symlink(Host("target"), Host("link"));
    EXPECT_EQ(OpenError(_T("link"), GENERIC_WRITE, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(_T("link"), GENERIC_WRITE, CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_EQ(OpenError(_T("link"), GENERIC_WRITE, CREATE_ALWAYS), 0u);
    EXPECT_TRUE(std::filesystem::exists(Host("target")));

    // A fifo without another side must not block.
    ASSERT_EQ(mkfifo(Host("fifo").c_str(), 0600), 0);
    EXPECT_EQ(OpenError(_T("fifo"), GENERIC_READ, OPEN_EXISTING), 0u);
}

TEST_F(HostFiles, BrokenPipeRaisesNoSignal)
{
    ASSERT_EQ(mkfifo(Host("fifo").c_str(), 0600), 0);
    Handle hReader = Open(_T("fifo"), GENERIC_READ, OPEN_EXISTING);
    Handle hWriter = Open(_T("fifo"), GENERIC_WRITE, OPEN_EXISTING);
    ASSERT_TRUE(hReader && hWriter);
    EXPECT_EQ(GetFileType(hWriter), FILE_TYPE_PIPE);
    DWORD nDone = 0;
    EXPECT_TRUE(WriteFile(hWriter, "x", 1, &nDone, nullptr));
    hReader.Close();
    EXPECT_TRUE(
        Fails(WriteFile(hWriter, "x", 1, &nDone, nullptr), ERROR_BROKEN_PIPE)); // the signal would end the program
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

TEST_F(HostFiles, FindTellsKindsAndDoesNotFollowLinks)
{
    Put(".dot", "123");
    Put("ro");
    chmod(Host("ro").c_str(), 0444);
    Put("bad\xFFname");
    std::filesystem::create_directory(Host("sub"));
    std::filesystem::create_directory_symlink("sub", Host("dirlink"));
    std::filesystem::create_symlink("nowhere", Host("dangling"));
    ASSERT_EQ(mkfifo(Host("fifo").c_str(), 0600), 0);
    int const nSocket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{AF_UNIX, {}};
    Host("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(nSocket, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(nSocket);

    std::map<std::string, WIN32_FIND_DATAW> found;
    auto const all = Find(_T("*"));
    for (WIN32_FIND_DATAW const & data : all)
    {
        found[kvx::ToUtf8(data.cFileName)] = data;
    }
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    ASSERT_EQ(all.size(), 10u);
    EXPECT_EQ(kvx::ToUtf8(all[0].cFileName) + kvx::ToUtf8(all[1].cFileName), "...");
    std::map<std::string, DWORD> const kinds = {{".", FILE_ATTRIBUTE_DIRECTORY},
                                                {"..", FILE_ATTRIBUTE_DIRECTORY},
                                                {".dot", FILE_ATTRIBUTE_NORMAL},
                                                {"ro", FILE_ATTRIBUTE_READONLY},
                                                {"bad\xEF\xBF\xBDname", FILE_ATTRIBUTE_NORMAL},
                                                {"sub", FILE_ATTRIBUTE_DIRECTORY},
                                                {"dirlink", FILE_ATTRIBUTE_REPARSE_POINT},
                                                {"dangling", FILE_ATTRIBUTE_REPARSE_POINT},
                                                {"fifo", FILE_ATTRIBUTE_DEVICE},
                                                {"socket", FILE_ATTRIBUTE_DEVICE}};
    for (auto const & [strName, dwAttributes] : kinds)
    {
        EXPECT_EQ(found[strName].dwFileAttributes, dwAttributes) << strName;
    }
    EXPECT_EQ(found["dirlink"].dwReserved0, IO_REPARSE_TAG_SYMLINK);
    EXPECT_EQ(found[".dot"].nFileSizeLow, 3u);
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    EXPECT_LE(now.dwHighDateTime - found[".dot"].ftLastWriteTime.dwHighDateTime, 1u);

    // The paths of what was found lead back, odd names too.
    EXPECT_TRUE(DeleteFileW(Path(found["bad\xEF\xBF\xBDname"].cFileName)));
    EXPECT_EQ(GetFileAttributesW(Path(_T("dirlink"))), FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(GetFileAttributesW(Path(_T("dangling"))), FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_TRUE(RemoveDirectoryW(Path(_T("dirlink"))));
    EXPECT_TRUE(DeleteFileW(Path(_T("dangling"))));
    EXPECT_TRUE(std::filesystem::exists(Host("sub")));
}

TEST_F(HostFiles, CopiesKeepTheModeAndReadWhatTellsNoSize)
{
    Put("big");
    chmod(Host("big").c_str(), 0755);
    EXPECT_TRUE(CopyFileW(Path(_T("big")), Path(_T("copy")), TRUE));
    EXPECT_EQ(std::filesystem::status(Host("copy")).permissions(), std::filesystem::perms(0755));
    EXPECT_TRUE(CopyFileW(_T("/proc/self/status"), Path(_T("status")), TRUE));
    EXPECT_FALSE(Get("status").empty()); // a file that tells no size
}

TEST_F(HostFiles, StandardHandlesAndDebugOutput)
{
    HANDLE const hOut = GetStdHandle(STD_OUTPUT_HANDLE);
    EXPECT_EQ(GetStdHandle(STD_OUTPUT_HANDLE), hOut);
    EXPECT_TRUE(AllocConsole());
    EXPECT_TRUE(CloseHandle(hOut));
    EXPECT_GE(fcntl(STDOUT_FILENO, F_GETFD), 0);
    EXPECT_NE(GetStdHandle(STD_OUTPUT_HANDLE), hOut);
    EXPECT_EQ(GetStdHandle(static_cast<DWORD>(-13)), INVALID_HANDLE_VALUE);

    // Longer than one piece, with pairs at every border.
    Handle hFile = Open(_T("out"), GENERIC_WRITE, CREATE_NEW);
    DWORD dwMode = 0;
    EXPECT_FALSE(GetConsoleMode(hFile, &dwMode));
    Wide strText = _T("x");
    for (int n = 0; n < 20000; ++n)
    {
        strText += _T("\U0001F600");
    }
    DWORD nWritten = 0;
    EXPECT_TRUE(WriteConsoleW(hFile, strText.data(), static_cast<DWORD>(strText.size()), &nWritten, nullptr));
    EXPECT_EQ(nWritten, strText.size());
    EXPECT_TRUE(Get("out") == kvx::ToUtf8(strText));
    HANDLE const hClosed = hFile;
    EXPECT_TRUE(hFile.Close());
    EXPECT_FALSE(WriteConsoleW(hClosed, _T("x"), 1, &nWritten, nullptr));

    static Wide s_strSeen;
    SetDebugOutputHook([](LPCWSTR pszText) { s_strSeen += pszText; });
    SetLastError(77);
    OutputDebugStringW(_T("seen"));
    EXPECT_EQ(GetLastError(), 77u);
    EXPECT_TRUE(SetDebugOutputHook(nullptr));
    OutputDebugStringW(_T("not seen"));
    OutputDebugStringW(nullptr);
    EXPECT_EQ(s_strSeen, _T("seen"));
}

} // namespace
