#include "kvx/platform/win32/files.h"
#include "Handle.h"
#include "NoLeaks.h"
#include "kvx/platform/win32/console.h"
#include "kvx/platform/win32/windows.h"

#include "TestFolder.h"
#include "tests/support/Fails.h"

#include <csignal>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

constexpr DWORD ReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD UNTOUCHED = 12345;
constexpr DWORD ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Files : public TestFolder
{
protected:
    /// Opens an entry; null with m_dwError on failure.
    Handle Open(std::u16string const & strName, DWORD dwAccess, DWORD dwDisposition, DWORD dwShare = ShareAll,
                DWORD dwFlags = FILE_ATTRIBUTE_NORMAL)
    {
        SetLastError(UNTOUCHED);
        HANDLE const hFile =
            CreateFileW(Path(strName).c_str(), dwAccess, dwShare, nullptr, dwDisposition, dwFlags, nullptr);
        m_dwError = GetLastError();
        return hFile;
    }

    /// The last error that an opening leaves.
    DWORD OpenError(std::u16string const & strName, DWORD dwAccess, DWORD dwDisposition, DWORD dwShare = ShareAll,
                    DWORD dwFlags = 0)
    {
        bool const bOpen = Open(strName, dwAccess, dwDisposition, dwShare, dwFlags) != nullptr;
        EXPECT_EQ(bOpen, m_dwError == UNTOUCHED || m_dwError == 0 || m_dwError == ERROR_ALREADY_EXISTS);
        return bOpen && m_dwError == UNTOUCHED ? 0 : m_dwError;
    }

    /// What is found, and the last error behind it.
    std::vector<WIN32_FIND_DATAW> Find(std::u16string const & strPattern) const
    {
        std::vector<WIN32_FIND_DATAW> found;
        WIN32_FIND_DATAW data;
        HANDLE const hFind = FindFirstFileW(Path(strPattern).c_str(), &data);
        if (hFind == INVALID_HANDLE_VALUE)
            return found;
        do
            found.push_back(data);
        while (FindNextFileW(hFind, &data));
        DWORD const dwError = GetLastError();
        EXPECT_TRUE(FindClose(hFind) && !FindClose(hFind));
        SetLastError(dwError);
        return found;
    }

    DWORD m_dwError = 0;
    // Some come with the first use and stay.
    NoLeaks const m_noLeaks = (GetStdHandle(STD_OUTPUT_HANDLE), ToHost(u"/none"), NoLeaks());
};

TEST_F(Files, DispositionsGiveTheOriginalsCodes)
{
    EXPECT_EQ(OpenError(u"f", GENERIC_READ, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(u"no\\f", GENERIC_READ, OPEN_EXISTING), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(u"no\\f", GENERIC_WRITE, CREATE_ALWAYS), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(u"f", GENERIC_WRITE, TRUNCATE_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(u"f", GENERIC_READ, TRUNCATE_EXISTING), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenError(u"f", GENERIC_READ, 6), ERROR_INVALID_PARAMETER);

    Handle hFile = Open(u"f", ReadWrite, OPEN_ALWAYS);
    EXPECT_TRUE(hFile && m_dwError == 0);
    for (auto const & entry : std::filesystem::directory_iterator("/proc/self/fd"))
        if (std::error_code error; std::filesystem::read_symlink(entry, error) == Host("f"))
        {
            EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
        }
    hFile.Close();
    Put("f", "text");
    EXPECT_EQ(OpenError(u"f", GENERIC_WRITE, CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_EQ(OpenError(u"F", ReadWrite, OPEN_ALWAYS), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Get("f"), "text");
    EXPECT_EQ(OpenError(u"f", GENERIC_READ, CREATE_ALWAYS), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Get("f"), "");

    // Dangling links lead to where the file comes to be, or are told to exist.
    std::filesystem::create_symlink(Host("target"), Host("link"));
    EXPECT_EQ(OpenError(u"link", GENERIC_WRITE, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(u"link", GENERIC_WRITE, CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_EQ(OpenError(u"link", GENERIC_WRITE, CREATE_ALWAYS), 0u);
    EXPECT_TRUE(std::filesystem::exists(Host("target")));

    std::filesystem::create_directory(Host("d"));
    for (DWORD const dwDisposition : {CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS})
        EXPECT_EQ(OpenError(u"d", GENERIC_READ, dwDisposition), ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenError(u"d", GENERIC_READ, CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_EQ(OpenError(u"d", ReadWrite, OPEN_EXISTING, ShareAll, FILE_FLAG_BACKUP_SEMANTICS), 0u);

    // A fifo without another side must not block.
    ASSERT_EQ(mkfifo(Host("fifo").c_str(), 0600), 0);
    EXPECT_EQ(OpenError(u"fifo", GENERIC_READ, OPEN_EXISTING), 0u);
}

TEST_F(Files, ReadOnlyFilesAreProtected)
{
    Put("f", "text");
    ASSERT_TRUE(SetFileAttributesW(Path(u"f").c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(GetFileAttributesW(Path(u"f").c_str()), FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(OpenError(u"f", GENERIC_WRITE, OPEN_EXISTING), ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenError(u"f", GENERIC_READ, CREATE_ALWAYS), ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenError(u"f", GENERIC_READ, OPEN_EXISTING), 0u);
    EXPECT_TRUE(Fails(DeleteFileW(Path(u"f").c_str()), ERROR_ACCESS_DENIED));
    EXPECT_EQ(Get("f"), "text");
    ASSERT_TRUE(SetFileAttributesW(Path(u"f").c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(DeleteFileW(Path(u"f").c_str()));
    Handle hFile = Open(u"new", GENERIC_WRITE, CREATE_NEW, ShareAll, FILE_ATTRIBUTE_READONLY);
    DWORD nWritten = 0;
    EXPECT_TRUE(WriteFile(hFile, "x", 1, &nWritten, nullptr)); // who made it may fill it
    EXPECT_EQ(GetFileAttributesW(Path(u"new").c_str()), FILE_ATTRIBUTE_READONLY);
}

TEST_F(Files, ShareModesHoldInTheProcess)
{
    Put("f");
    struct Case
    {
        DWORD dwAccess, dwShare, dwAccess2, dwShare2;
        bool bFits;
    };
    for (Case const & test :
         {Case{GENERIC_READ, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ, true},
          Case{GENERIC_READ, 0, GENERIC_READ, ShareAll, false}, Case{GENERIC_READ, ShareAll, GENERIC_READ, 0, false},
          Case{GENERIC_READ, FILE_SHARE_READ, GENERIC_WRITE, ShareAll, false},
          Case{GENERIC_WRITE, ShareAll, GENERIC_READ, FILE_SHARE_READ, false},
          Case{GENERIC_WRITE, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_WRITE, true},
          Case{GENERIC_READ, FILE_SHARE_READ, DELETE, ShareAll, false},
          Case{GENERIC_WRITE, 0, FILE_READ_ATTRIBUTES, 0, true}})
    {
        Handle const hFirst = Open(u"f", test.dwAccess, OPEN_EXISTING, test.dwShare);
        ASSERT_TRUE(hFirst);
        EXPECT_EQ(OpenError(u"f", test.dwAccess2, OPEN_EXISTING, test.dwShare2),
                  test.bFits ? 0u : DWORD{ERROR_SHARING_VIOLATION})
            << test.dwAccess << ' ' << test.dwShare << ' ' << test.dwAccess2 << ' ' << test.dwShare2;
    }
    // A refused opening has changed nothing; not even through another name of the file.
    Put("f", "kept");
    std::filesystem::create_hard_link(Host("f"), Host("g"));
    Handle hFile = Open(u"f", GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
    EXPECT_EQ(OpenError(u"g", GENERIC_WRITE, CREATE_ALWAYS), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Get("f"), "kept");
    EXPECT_TRUE(Fails(DeleteFileW(Path(u"f").c_str()), ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(Fails(MoveFileW(Path(u"f").c_str(), Path(u"h").c_str()), ERROR_SHARING_VIOLATION));
    Put("source", "new");
    EXPECT_TRUE(Fails(CopyFileW(Path(u"source").c_str(), Path(u"f").c_str(), FALSE), ERROR_SHARING_VIOLATION));
    EXPECT_EQ(Get("f"), "kept");
    EXPECT_TRUE(hFile.Close() && DeleteFileW(Path(u"f").c_str()));

    Handle hGone = Open(u"gone", GENERIC_WRITE, CREATE_NEW, 0, FILE_FLAG_DELETE_ON_CLOSE);
    EXPECT_TRUE(std::filesystem::exists(Host("gone")) && hGone.Close());
    EXPECT_FALSE(std::filesystem::exists(Host("gone")));
}

TEST_F(Files, ReadingWritingAndPositions)
{
    Handle hFile = Open(u"f", ReadWrite, CREATE_NEW);
    DWORD nDone = 0;
    ASSERT_TRUE(WriteFile(hFile, "0123456789", 10, &nDone, nullptr));
    EXPECT_EQ(nDone, 10u);
    EXPECT_EQ(SetFilePointer(hFile, -4, nullptr, FILE_END), 6u);
    char szBuffer[20] = "";
    EXPECT_TRUE(ReadFile(hFile, szBuffer, 20, &nDone, nullptr));
    EXPECT_EQ(std::string(szBuffer, nDone), "6789");
    EXPECT_TRUE(ReadFile(hFile, szBuffer, 20, &nDone, nullptr)); // the end is no error
    EXPECT_EQ(nDone, 0u);

    OVERLAPPED at{};
    at.Offset = 2;
    EXPECT_TRUE(WriteFile(hFile, "ab", 2, &nDone, &at));
    at.Offset = 1;
    EXPECT_TRUE(ReadFile(hFile, szBuffer, 4, &nDone, &at));
    EXPECT_EQ(std::string(szBuffer, nDone), "1ab4");
    EXPECT_EQ(SetFilePointer(hFile, 0, nullptr, FILE_CURRENT), 5u);
    at.Offset = 10;
    EXPECT_TRUE(Fails(ReadFile(hFile, szBuffer, 4, &nDone, &at), ERROR_HANDLE_EOF));
    at.hEvent = hFile;
    EXPECT_TRUE(Fails(ReadFile(hFile, szBuffer, 4, &nDone, &at), ERROR_NOT_SUPPORTED));

    EXPECT_TRUE(Fails(SetFilePointer(hFile, -1, nullptr, FILE_BEGIN), ERROR_NEGATIVE_SEEK, INVALID_SET_FILE_POINTER));
    LONG nHigh = 1;
    EXPECT_TRUE(Fails(SetFilePointer(hFile, -1, &nHigh, FILE_BEGIN), NO_ERROR,
                      INVALID_SET_FILE_POINTER)); // a position beyond 4 GB
    EXPECT_EQ(nHigh, 1);
    EXPECT_TRUE(SetEndOfFile(hFile));
    LARGE_INTEGER size;
    EXPECT_TRUE(GetFileSizeEx(hFile, &size));
    EXPECT_EQ(size.QuadPart, 0x1FFFFFFFFLL);
    SetFilePointer(hFile, 3, nullptr, FILE_BEGIN);
    EXPECT_TRUE(SetEndOfFile(hFile));
    EXPECT_TRUE(FlushFileBuffers(hFile));
    EXPECT_EQ(GetFileSize(hFile, nullptr), 3u);
    EXPECT_EQ(GetFileType(hFile), FILE_TYPE_DISK);
    SetFilePointer(hFile, 0, nullptr, FILE_BEGIN);
    EXPECT_FALSE(ReadFile(hFile, nullptr, 3, &nDone, nullptr)); // no memory there
    HANDLE const hClosed = hFile;
    hFile.Close();
    EXPECT_TRUE(Fails(ReadFile(hClosed, szBuffer, 4, &nDone, nullptr), ERROR_INVALID_HANDLE));
    EXPECT_EQ(nDone, 0u);
    Handle hReader = Open(u"f", GENERIC_READ, OPEN_EXISTING);
    EXPECT_TRUE(Fails(WriteFile(hReader, "x", 1, &nDone, nullptr), ERROR_ACCESS_DENIED));
    EXPECT_FALSE(SetEndOfFile(hReader));
    // Who may only append does so wherever the file ends by then, and whatever position he has asked for.
    Handle hAppender = Open(u"f", FILE_APPEND_DATA, OPEN_EXISTING);
    Handle hOther = Open(u"f", FILE_APPEND_DATA | SYNCHRONIZE, OPEN_ALWAYS);
    EXPECT_TRUE(WriteFile(hAppender, "+", 1, &nDone, nullptr) && WriteFile(hOther, "-", 1, &nDone, nullptr));
    SetFilePointer(hAppender, 0, nullptr, FILE_BEGIN);
    EXPECT_TRUE(WriteFile(hAppender, "+", 1, &nDone, nullptr));
    EXPECT_FALSE(ReadFile(hAppender, szBuffer, 1, &nDone, nullptr));
    EXPECT_EQ(Get("f"), "01a+-+");
}

TEST_F(Files, BrokenPipeRaisesNoSignal)
{
    ASSERT_EQ(mkfifo(Host("fifo").c_str(), 0600), 0);
    Handle hReader = Open(u"fifo", GENERIC_READ, OPEN_EXISTING);
    Handle hWriter = Open(u"fifo", GENERIC_WRITE, OPEN_EXISTING);
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

TEST_F(Files, FindTellsKindsAndDoesNotFollowLinks)
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
    auto const all = Find(u"*");
    for (WIN32_FIND_DATAW const & data : all)
        found[ToUtf8(data.cFileName)] = data;
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    ASSERT_EQ(all.size(), 10u);
    EXPECT_EQ(ToUtf8(all[0].cFileName) + ToUtf8(all[1].cFileName), "...");
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
        EXPECT_EQ(found[strName].dwFileAttributes, dwAttributes) << strName;
    EXPECT_EQ(found["dirlink"].dwReserved0, IO_REPARSE_TAG_SYMLINK);
    EXPECT_EQ(found[".dot"].nFileSizeLow, 3u);
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    EXPECT_LE(now.dwHighDateTime - found[".dot"].ftLastWriteTime.dwHighDateTime, 1u);

    // The paths of what was found lead back, odd names too.
    EXPECT_TRUE(DeleteFileW(Path(found["bad\xEF\xBF\xBDname"].cFileName).c_str()));
    EXPECT_EQ(GetFileAttributesW(Path(u"dirlink").c_str()), FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(GetFileAttributesW(Path(u"dangling").c_str()), FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_TRUE(RemoveDirectoryW(Path(u"dirlink").c_str()));
    EXPECT_TRUE(DeleteFileW(Path(u"dangling").c_str()));
    EXPECT_TRUE(std::filesystem::exists(Host("sub")));
}

TEST_F(Files, FindPatternsFollowTheOriginal)
{
    for (char const * const pszName : {"a", "ab", "ab.txt", "AB.TXT2", "a.b.txt", "noext", "\xC3\x84.txt"})
        Put(pszName);
    auto const find = [&](std::u16string const & strPattern)
    {
        std::set<std::string> names;
        for (WIN32_FIND_DATAW const & data : Find(strPattern))
            names.insert(ToUtf8(data.cFileName));
        if (names.empty())
            names.insert("error " + std::to_string(GetLastError()));
        names.erase(".");
        names.erase("..");
        return names;
    };
    using Names = std::set<std::string>;
    EXPECT_EQ(find(u"*.*").size(), 7u);
    EXPECT_EQ(find(u"*.txt"), (Names{"ab.txt", "a.b.txt", "\xC3\x84.txt"}));
    EXPECT_EQ(find(u"*.TXT?"), (Names{"ab.txt", "AB.TXT2", "a.b.txt", "\xC3\x84.txt"}));
    EXPECT_EQ(find(u"??"), (Names{"a", "ab"}));
    EXPECT_EQ(find(u"??.*"), (Names{"a", "ab", "ab.txt", "AB.TXT2", "a.b.txt", "\xC3\x84.txt"}));
    EXPECT_EQ(find(u"*."), (Names{"a", "ab", "noext"}));
    EXPECT_EQ(find(u"A*B*"), (Names{"ab", "ab.txt", "AB.TXT2", "a.b.txt"}));
    EXPECT_EQ(find(u"\u00E4.*"), (Names{"\xC3\x84.txt"}));
    EXPECT_EQ(find(u"NOEXT"), (Names{"noext"})); // the name as it stands in the folder
    EXPECT_EQ(find(u"none*"), (Names{"error 2"}));
    EXPECT_EQ(find(u"none"), (Names{"error 2"}));
    EXPECT_EQ(find(u""), (Names{"error 2"}));
    EXPECT_EQ(find(u"none\\*"), (Names{"error 3"}));
    EXPECT_EQ(find(u"none\\x"), (Names{"error 3"}));
    EXPECT_EQ(find(u"a\\*"), (Names{"error 267"}));
    std::u16string strHostile;
    for (int n = 0; n < 5000; ++n)
        strHostile += u"*a";
    EXPECT_EQ(find(strHostile + u"*b"), (Names{"error 2"})); // would take forever by backtracking
    // A drive's root has no "." entries.
    WIN32_FIND_DATAW data;
    EXPECT_EQ(FindFirstFileW(u"Z:\\.?", &data), INVALID_HANDLE_VALUE);
}

TEST_F(Files, MovingCopyingAndFolders)
{
    Put("f", "text");
    Put("g");
    EXPECT_TRUE(Fails(MoveFileW(Path(u"f").c_str(), Path(u"g").c_str()), ERROR_ALREADY_EXISTS));
    EXPECT_TRUE(Fails(MoveFileW(Path(u"none").c_str(), Path(u"x").c_str()), ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(Fails(MoveFileW(Path(u"f").c_str(), Path(u"no\\x").c_str()), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(MoveFileW(Path(u"f").c_str(), Path(u"F").c_str())); // only the case changes
    EXPECT_EQ(Get("F"), "text");
    EXPECT_FALSE(std::filesystem::exists(Host("f")));

    std::string const strBig(700000, 'b');
    Put("big", strBig);
    chmod(Host("big").c_str(), 0755);
    EXPECT_TRUE(CopyFileW(Path(u"big").c_str(), Path(u"copy").c_str(), TRUE));
    EXPECT_TRUE(Get("copy") == strBig);
    EXPECT_EQ(std::filesystem::status(Host("copy")).permissions(), std::filesystem::perms(0755));
    EXPECT_EQ(std::filesystem::last_write_time(Host("copy")), std::filesystem::last_write_time(Host("big")));
    EXPECT_TRUE(Fails(CopyFileW(Path(u"F").c_str(), Path(u"copy").c_str(), TRUE), ERROR_FILE_EXISTS));
    EXPECT_TRUE(CopyFileW(Path(u"F").c_str(), Path(u"copy").c_str(), FALSE));
    EXPECT_EQ(Get("copy"), "text");
    EXPECT_TRUE(Fails(CopyFileW(Path(u"F").c_str(), Path(u"f").c_str(), FALSE), ERROR_SHARING_VIOLATION));
    EXPECT_EQ(Get("F"), "text"); // not emptied by a copy onto itself
    EXPECT_TRUE(CopyFileW(u"/proc/self/status", Path(u"status").c_str(), TRUE));
    EXPECT_FALSE(Get("status").empty()); // a file that tells no size

    EXPECT_TRUE(CreateDirectoryW(Path(u"d").c_str(), nullptr));
    EXPECT_TRUE(Fails(CreateDirectoryW(Path(u"D").c_str(), nullptr), ERROR_ALREADY_EXISTS));
    EXPECT_TRUE(Fails(CreateDirectoryW(Path(u"no\\x").c_str(), nullptr), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(Fails(DeleteFileW(Path(u"d").c_str()), ERROR_ACCESS_DENIED));
    EXPECT_TRUE(Fails(CopyFileW(Path(u"d").c_str(), Path(u"x").c_str(), TRUE), ERROR_ACCESS_DENIED));
    Put("d/x");
    EXPECT_TRUE(Fails(RemoveDirectoryW(Path(u"d").c_str()), ERROR_DIR_NOT_EMPTY));
    EXPECT_TRUE(Fails(RemoveDirectoryW(Path(u"F").c_str()), ERROR_DIRECTORY));
    EXPECT_TRUE(Fails(RemoveDirectoryW(Path(u"none").c_str()), ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(DeleteFileW(Path(u"d\\X").c_str()));
    EXPECT_TRUE(RemoveDirectoryW(Path(u"d\\").c_str()));

    char16_t szName[MAX_PATH];
    UINT const nNumber = GetTempFileNameW(Path(u"").c_str(), u"prefix", 0, szName);
    EXPECT_NE(nNumber, 0u);
    EXPECT_TRUE(std::u16string_view(szName).starts_with(Path(u"pre")));
    EXPECT_NE(GetFileAttributesW(szName), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetTempFileNameW(Path(u"none").c_str(), u"p", 0, szName), 0u);
    EXPECT_TRUE(
        Fails(GetTempFileNameW(Path(std::u16string(250, u'\\')).c_str(), u"p", 1, szName), ERROR_BUFFER_OVERFLOW));
}

TEST_F(Files, StandardHandlesAndDebugOutput)
{
    HANDLE const hOut = GetStdHandle(STD_OUTPUT_HANDLE);
    EXPECT_EQ(GetStdHandle(STD_OUTPUT_HANDLE), hOut);
    EXPECT_TRUE(AllocConsole());
    EXPECT_TRUE(CloseHandle(hOut));
    EXPECT_GE(fcntl(STDOUT_FILENO, F_GETFD), 0);
    EXPECT_NE(GetStdHandle(STD_OUTPUT_HANDLE), hOut);
    EXPECT_EQ(GetStdHandle(static_cast<DWORD>(-13)), INVALID_HANDLE_VALUE);

    // Longer than one piece, with pairs at every border.
    Handle hFile = Open(u"out", GENERIC_WRITE, CREATE_NEW);
    DWORD dwMode = 0;
    EXPECT_FALSE(GetConsoleMode(hFile, &dwMode));
    std::u16string strText = u"x";
    for (int n = 0; n < 20000; ++n)
        strText += u"\U0001F600";
    DWORD nWritten = 0;
    EXPECT_TRUE(WriteConsoleW(hFile, strText.data(), static_cast<DWORD>(strText.size()), &nWritten, nullptr));
    EXPECT_EQ(nWritten, strText.size());
    EXPECT_TRUE(Get("out") == ToUtf8(strText));
    HANDLE const hClosed = hFile;
    EXPECT_TRUE(hFile.Close());
    EXPECT_FALSE(WriteConsoleW(hClosed, u"x", 1, &nWritten, nullptr));

    static std::u16string s_strSeen;
    SetDebugOutputHook([](LPCWSTR pszText) { s_strSeen += pszText; });
    SetLastError(77);
    OutputDebugStringW(u"seen");
    EXPECT_EQ(GetLastError(), 77u);
    EXPECT_TRUE(SetDebugOutputHook(nullptr));
    OutputDebugStringW(u"not seen");
    OutputDebugStringW(nullptr);
    EXPECT_EQ(s_strSeen, u"seen");
}

TEST(Windows, HoldATextForAllThreads)
{
    HWND const hWnd = CreateWindowExW(0, u"STATIC", u"first", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    char16_t szText[8] = u"#######";
    EXPECT_EQ(GetWindowTextW(hWnd, szText, 4), 3);
    EXPECT_EQ(std::u16string(szText), u"fir");
    std::thread([&]
                { EXPECT_TRUE(SetWindowTextW(hWnd, u"second") && Fails(DestroyWindow(hWnd), ERROR_ACCESS_DENIED)); })
        .join();
    EXPECT_EQ(GetWindowTextLengthW(hWnd), 6);
    EXPECT_TRUE(DestroyWindow(hWnd) && !IsWindow(hWnd));
    EXPECT_TRUE(Fails(SetWindowTextW(hWnd, u""), ERROR_INVALID_WINDOW_HANDLE));
    EXPECT_FALSE(IsWindow(reinterpret_cast<HWND>(GetStdHandle(STD_OUTPUT_HANDLE)))); // another kind of object
    EXPECT_TRUE(Fails(CreateWindowExW(0, u"STATIC", u"", 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr),
                      ERROR_NOT_SUPPORTED));
}

} // namespace
