#include "FilesFixture.h"
#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/Wide.h"

#include <set>
#include <thread>

namespace
{

TEST_F(Files, DispositionsGiveTheOriginalsCodes)
{
    EXPECT_EQ(OpenError(_T("f"), GENERIC_READ, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(_T("no\\f"), GENERIC_READ, OPEN_EXISTING), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(_T("no\\f"), GENERIC_WRITE, CREATE_ALWAYS), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(OpenError(_T("f"), GENERIC_WRITE, TRUNCATE_EXISTING), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenError(_T("f"), GENERIC_READ, 6), ERROR_INVALID_PARAMETER);
    if (!host::IsWine()) // does it (TruncatesWithoutWriting, 2026-11-22)
    {
        EXPECT_EQ(OpenError(_T("f"), GENERIC_READ, TRUNCATE_EXISTING), ERROR_INVALID_PARAMETER);
    }

    Handle hFile = Open(_T("f"), READ_WRITE, OPEN_ALWAYS);
    EXPECT_TRUE(hFile && m_dwError == 0);
    hFile.Close();
    Put("f", "text");
    EXPECT_EQ(OpenError(_T("f"), GENERIC_WRITE, CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_EQ(OpenError(_T("F"), READ_WRITE, OPEN_ALWAYS), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Get("f"), "text");
    EXPECT_EQ(OpenError(_T("f"), GENERIC_READ, CREATE_ALWAYS), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Get("f"), "");

    std::filesystem::create_directory(Host("d"));
    for (DWORD const dwDisposition : {CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS})
    {
        EXPECT_EQ(OpenError(_T("d"), GENERIC_READ, dwDisposition), ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(OpenError(_T("d"), GENERIC_READ, CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_EQ(OpenError(_T("d"), READ_WRITE, OPEN_EXISTING, SHARE_ALL, FILE_FLAG_BACKUP_SEMANTICS), 0u);
}

TEST_F(Files, ReadOnlyFilesAreProtected)
{
    KVX_NOT_UNDER_WINE("the superuser writes them; ReadOnlyFilesAreWritten", "2026-11-22");
    Put("f", "text");
    ASSERT_TRUE(SetFileAttributesW(Path(_T("f")), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_TRUE(GetFileAttributesW(Path(_T("f"))) & FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(OpenError(_T("f"), GENERIC_WRITE, OPEN_EXISTING), ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenError(_T("f"), GENERIC_READ, CREATE_ALWAYS), ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenError(_T("f"), GENERIC_READ, OPEN_EXISTING), 0u);
    EXPECT_TRUE(Fails(DeleteFileW(Path(_T("f"))), ERROR_ACCESS_DENIED));
    EXPECT_EQ(Get("f"), "text");
    ASSERT_TRUE(SetFileAttributesW(Path(_T("f")), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(DeleteFileW(Path(_T("f"))));
    Handle hFile = Open(_T("new"), GENERIC_WRITE, CREATE_NEW, SHARE_ALL, FILE_ATTRIBUTE_READONLY);
    DWORD nWritten = 0;
    EXPECT_TRUE(WriteFile(hFile, "x", 1, &nWritten, nullptr)); // who made it may fill it
    EXPECT_TRUE(GetFileAttributesW(Path(_T("new"))) & FILE_ATTRIBUTE_READONLY);
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
          Case{GENERIC_READ, 0, GENERIC_READ, SHARE_ALL, false}, Case{GENERIC_READ, SHARE_ALL, GENERIC_READ, 0, false},
          Case{GENERIC_READ, FILE_SHARE_READ, GENERIC_WRITE, SHARE_ALL, false},
          Case{GENERIC_WRITE, SHARE_ALL, GENERIC_READ, FILE_SHARE_READ, false},
          Case{GENERIC_WRITE, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_WRITE, true},
          Case{GENERIC_READ, FILE_SHARE_READ, DELETE, SHARE_ALL, false},
          Case{GENERIC_WRITE, 0, FILE_READ_ATTRIBUTES, 0, true}})
    {
        Handle const hFirst = Open(_T("f"), test.dwAccess, OPEN_EXISTING, test.dwShare);
        ASSERT_TRUE(hFirst);
        EXPECT_EQ(OpenError(_T("f"), test.dwAccess2, OPEN_EXISTING, test.dwShare2),
                  test.bFits ? 0u : DWORD{ERROR_SHARING_VIOLATION})
            << test.dwAccess << ' ' << test.dwShare << ' ' << test.dwAccess2 << ' ' << test.dwShare2;
    }
    // A refused opening has changed nothing; not even through another name of the file.
    Put("f", "kept");
    std::filesystem::create_hard_link(Host("f"), Host("g"));
    Handle hFile = Open(_T("f"), GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
    EXPECT_EQ(OpenError(_T("g"), GENERIC_WRITE, CREATE_ALWAYS), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Get("f"), "kept");
    EXPECT_TRUE(Fails(DeleteFileW(Path(_T("f"))), ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(Fails(MoveFileW(Path(_T("f")), Path(_T("h"))), ERROR_SHARING_VIOLATION));
    Put("source", "new");
    EXPECT_TRUE(Fails(CopyFileW(Path(_T("source")), Path(_T("f")), FALSE), ERROR_SHARING_VIOLATION));
    EXPECT_EQ(Get("f"), "kept");
    EXPECT_TRUE(hFile.Close() && DeleteFileW(Path(_T("f"))));

    Handle hGone = Open(_T("gone"), GENERIC_WRITE, CREATE_NEW, 0, FILE_FLAG_DELETE_ON_CLOSE);
    EXPECT_TRUE(std::filesystem::exists(Host("gone")) && hGone.Close());
    EXPECT_FALSE(std::filesystem::exists(Host("gone")));
}

TEST_F(Files, ReadingWritingAndPositions)
{
    Handle hFile = Open(_T("f"), READ_WRITE, CREATE_NEW);
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
    EXPECT_TRUE(host::IsWindows() || // may have one (2026-11-22)
                Fails(ReadFile(hFile, szBuffer, 4, &nDone, &at), ERROR_NOT_SUPPORTED));

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
    Handle hReader = Open(_T("f"), GENERIC_READ, OPEN_EXISTING);
    EXPECT_TRUE(Fails(WriteFile(hReader, "x", 1, &nDone, nullptr), ERROR_ACCESS_DENIED));
    EXPECT_FALSE(SetEndOfFile(hReader));
    // Who may only append does so wherever the file ends by then, and whatever position he has asked for.
    Handle hAppender = Open(_T("f"), FILE_APPEND_DATA, OPEN_EXISTING);
    Handle hOther = Open(_T("f"), FILE_APPEND_DATA | SYNCHRONIZE, OPEN_ALWAYS);
    EXPECT_TRUE(WriteFile(hAppender, "+", 1, &nDone, nullptr) && WriteFile(hOther, "-", 1, &nDone, nullptr));
    SetFilePointer(hAppender, 0, nullptr, FILE_BEGIN);
    EXPECT_TRUE(WriteFile(hAppender, "+", 1, &nDone, nullptr));
    EXPECT_FALSE(ReadFile(hAppender, szBuffer, 1, &nDone, nullptr));
    EXPECT_EQ(Get("f"), "01a+-+");
}

TEST_F(Files, FindPatternsFollowTheOriginal)
{
    KVX_NOT_UNDER_WINE("its patterns are simpler; QuestionMarksAreOneCharacter", "2026-11-22");
    for (char const * const pszName : {"a", "ab", "ab.txt", "AB.TXT2", "a.b.txt", "noext", "\xC3\x84.txt"})
    {
        Put(pszName);
    }
    auto const find = [&](CString const & strPattern)
    {
        std::set<std::string> names;
        for (WIN32_FIND_DATAW const & data : Find(strPattern))
        {
            names.insert(kvx::ToUtf8(data.cFileName));
        }
        if (names.empty())
        {
            names.insert("error " + std::to_string(GetLastError()));
        }
        names.erase(".");
        names.erase("..");
        return names;
    };
    using Names = std::set<std::string>;
    EXPECT_EQ(find(_T("*.*")).size(), 7u);
    EXPECT_EQ(find(_T("*.txt")), (Names{"ab.txt", "a.b.txt", "\xC3\x84.txt"}));
    EXPECT_EQ(find(_T("*.TXT?")), (Names{"ab.txt", "AB.TXT2", "a.b.txt", "\xC3\x84.txt"}));
    EXPECT_EQ(find(_T("??")), (Names{"a", "ab"}));
    EXPECT_EQ(find(_T("??.*")), (Names{"a", "ab", "ab.txt", "AB.TXT2", "a.b.txt", "\xC3\x84.txt"}));
    EXPECT_EQ(find(_T("*.")), (Names{"a", "ab", "noext"}));
    EXPECT_EQ(find(_T("A*B*")), (Names{"ab", "ab.txt", "AB.TXT2", "a.b.txt"}));
    EXPECT_EQ(find(_T("\u00E4.*")), (Names{"\xC3\x84.txt"}));
    EXPECT_EQ(find(_T("NOEXT")), (Names{"noext"})); // the name as it stands in the folder
    EXPECT_EQ(find(_T("none*")), (Names{"error 2"}));
    EXPECT_EQ(find(_T("none")), (Names{"error 2"}));
    EXPECT_EQ(find(_T("")), (Names{"error 2"}));
    EXPECT_EQ(find(_T("none\\*")), (Names{"error 3"}));
    EXPECT_EQ(find(_T("none\\x")), (Names{"error 3"}));
    EXPECT_EQ(find(_T("a\\*")), (Names{"error 267"}));
    CString strHostile(_T('*'), 5000);
    strHostile.Replace(_T("*"), _T("*a"));
    EXPECT_EQ(find(strHostile + _T("*b")), (Names{"error 2"})); // would take forever by backtracking
    // A drive's root has no "." entries.
    WIN32_FIND_DATAW data;
    EXPECT_EQ(FindFirstFileW(_T("Z:\\.?"), &data), INVALID_HANDLE_VALUE);
}

TEST_F(Files, MovingCopyingAndFolders)
{
    Put("f", "text");
    Put("g");
    EXPECT_TRUE(Fails(MoveFileW(Path(_T("f")), Path(_T("g"))), ERROR_ALREADY_EXISTS));
    EXPECT_TRUE(Fails(MoveFileW(Path(_T("none")), Path(_T("x"))), ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(Fails(MoveFileW(Path(_T("f")), Path(_T("no\\x"))), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(MoveFileW(Path(_T("f")), Path(_T("F")))); // only the case changes
    EXPECT_EQ(Get("F"), "text");
    EXPECT_TRUE(host::IsWindows() || !std::filesystem::exists(Host("f"))); // where "F" is "f" (2026-11-22)

    std::string const strBig(700000, 'b');
    Put("big", strBig);
    EXPECT_TRUE(CopyFileW(Path(_T("big")), Path(_T("copy")), TRUE));
    EXPECT_TRUE(Get("copy") == strBig);
    EXPECT_EQ(std::filesystem::last_write_time(Host("copy")), std::filesystem::last_write_time(Host("big")));
    EXPECT_TRUE(Fails(CopyFileW(Path(_T("F")), Path(_T("copy")), TRUE), ERROR_FILE_EXISTS));
    EXPECT_TRUE(CopyFileW(Path(_T("F")), Path(_T("copy")), FALSE));
    EXPECT_EQ(Get("copy"), "text");
    EXPECT_TRUE(Fails(CopyFileW(Path(_T("F")), Path(_T("f")), FALSE), ERROR_SHARING_VIOLATION));
    EXPECT_EQ(Get("F"), "text"); // not emptied by a copy onto itself

    EXPECT_TRUE(CreateDirectoryW(Path(_T("d")), nullptr));
    EXPECT_TRUE(Fails(CreateDirectoryW(Path(_T("D")), nullptr), ERROR_ALREADY_EXISTS));
    EXPECT_TRUE(Fails(CreateDirectoryW(Path(_T("no\\x")), nullptr), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(Fails(DeleteFileW(Path(_T("d"))), ERROR_ACCESS_DENIED));
    EXPECT_TRUE(Fails(CopyFileW(Path(_T("d")), Path(_T("x")), TRUE), ERROR_ACCESS_DENIED));
    Put("d/x");
    EXPECT_TRUE(Fails(RemoveDirectoryW(Path(_T("d"))), ERROR_DIR_NOT_EMPTY));
    EXPECT_TRUE(Fails(RemoveDirectoryW(Path(_T("F"))), ERROR_DIRECTORY));
    EXPECT_TRUE(Fails(RemoveDirectoryW(Path(_T("none"))), ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(DeleteFileW(Path(_T("d\\X"))));
    EXPECT_TRUE(RemoveDirectoryW(Path(_T("d\\"))));

    WCHAR szName[MAX_PATH];
    UINT const nNumber = GetTempFileNameW(Path(_T("")), _T("prefix"), 0, szName);
    EXPECT_NE(nNumber, 0u);
    EXPECT_TRUE(CString(szName).Find(Path(_T("pre"))) == 0);
    EXPECT_NE(GetFileAttributesW(szName), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetTempFileNameW(Path(_T("none")), _T("p"), 0, szName), 0u);
    EXPECT_TRUE(host::IsWine() || // LongTemporaryFolders, 2026-11-22
                Fails(GetTempFileNameW(Path(CString(_T('\\'), 250)), _T("p"), 1, szName), ERROR_BUFFER_OVERFLOW));
}

TEST(Windows, HoldATextForAllThreads)
{
    HWND const hWnd =
        CreateWindowExW(0, _T("STATIC"), _T("first"), 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    WCHAR szText[8] = _T("#######");
    EXPECT_EQ(GetWindowTextW(hWnd, szText, 4), 3);
    EXPECT_EQ(Wide(szText), _T("fir"));
    std::thread(
        [&]
        {
            // Windows asks the window's thread, which is busy (2026-11-22).
            EXPECT_TRUE(host::IsWindows() || SetWindowTextW(hWnd, _T("other")));
            EXPECT_TRUE(Fails(DestroyWindow(hWnd), ERROR_ACCESS_DENIED));
        })
        .join();
    EXPECT_TRUE(SetWindowTextW(hWnd, _T("second")));
    EXPECT_EQ(GetWindowTextLengthW(hWnd), 6);
    EXPECT_TRUE(DestroyWindow(hWnd) && !IsWindow(hWnd));
    EXPECT_TRUE(Fails(SetWindowTextW(hWnd, _T("")), ERROR_INVALID_WINDOW_HANDLE));
    EXPECT_FALSE(IsWindow(reinterpret_cast<HWND>(GetStdHandle(STD_OUTPUT_HANDLE)))); // another kind of object
    EXPECT_TRUE(host::IsWindows() ||                                                 // shows it (2026-11-22)
                Fails(CreateWindowExW(0, _T("STATIC"), _T(""), 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr),
                      ERROR_NOT_SUPPORTED));
}

} // namespace
