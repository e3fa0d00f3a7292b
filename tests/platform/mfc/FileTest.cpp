#include "tests/support/Raised.h"

#include "kvx/platform/mfc/File.h"
#include "kvx/platform/mfc/Sync.h"
#include "kvx/platform/mfc/Time.h"
#include "kvx/platform/mfc/WinApp.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace
{
class FileTest : public testing::Test
{
protected:
    FileTest()
    {
        WCHAR folder[MAX_PATH], path[MAX_PATH];
        GetTempPathW(MAX_PATH, folder);
        GetTempFileNameW(folder, _T("kvx"), 0, path);
        m_strPath = path;
    }
    ~FileTest() override { DeleteFileW(m_strPath); }

    void Fill(std::string const & content)
    {
        CFile file(m_strPath, CFile::modeCreate | CFile::modeWrite);
        file.Write(content.data(), static_cast<UINT>(content.size()));
    }
    std::string Content()
    {
        CFile file(m_strPath, CFile::modeRead | CFile::shareDenyNone);
        std::string content(static_cast<std::size_t>(file.GetLength()), '\0');
        content.resize(file.Read(content.data(), static_cast<UINT>(content.size())));
        return content;
    }

    CString m_strPath;
};
} // namespace

TEST_F(FileTest, OpenFlagsDecideWhatHappens)
{
    struct
    {
        UINT nFlags;
        bool bReads, bWrites;
        char const * pszContent;
    } const cases[] = {
        {CFile::modeRead, true, false, "old"},
        {CFile::modeWrite, false, true, "Xld"},
        {CFile::modeReadWrite, true, true, "Xld"},
        {CFile::modeCreate | CFile::modeWrite, false, true, "X"},
        {CFile::modeCreate | CFile::modeNoTruncate | CFile::modeReadWrite, true, true, "Xld"},
    };
    for (auto const & c : cases)
    {
        Fill("old");
        CFile file;
        ASSERT_TRUE(file.Open(m_strPath, c.nFlags | CFile::shareDenyNone)) << c.nFlags;
        char byte;
        EXPECT_EQ(CauseOf([&] { file.Read(&byte, 1); }), c.bReads ? 0 : CFileException::accessDenied) << c.nFlags;
        file.SeekToBegin();
        EXPECT_EQ(CauseOf([&] { file.Write("X", 1); }), c.bWrites ? 0 : CFileException::accessDenied) << c.nFlags;
        file.Close();
        EXPECT_EQ(Content(), c.pszContent) << c.nFlags;
    }
    DeleteFileW(m_strPath);
    EXPECT_EQ(CauseOf([&] { CFile file(m_strPath, CFile::modeReadWrite); }), CFileException::fileNotFound);
    EXPECT_EQ(CauseOf([&] { CFile file(m_strPath, CFile::modeCreate | CFile::modeNoTruncate | CFile::modeWrite); }), 0);
}

TEST_F(FileTest, ShareModesHold)
{
    CFile first(m_strPath, CFile::modeRead | CFile::shareDenyWrite);
    CFile second;
    CFileException error;
    EXPECT_FALSE(second.Open(m_strPath, CFile::modeWrite | CFile::shareDenyNone, &error));
    EXPECT_EQ(error.m_cause, CFileException::sharingViolation);
    EXPECT_EQ(error.m_lOsError, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(error.m_strFileName, m_strPath);
    WCHAR message[512];
    EXPECT_TRUE(error.GetErrorMessage(message, 512));
    EXPECT_GE(CString(message).Find(m_strPath.GetString()), 0);
    EXPECT_TRUE(error.GetErrorMessage(message, 4));
    EXPECT_EQ(CString(message).GetLength(), 3);

    EXPECT_TRUE(second.Open(m_strPath, CFile::modeRead | CFile::shareDenyNone));
    EXPECT_FALSE(CFile().Open(m_strPath, CFile::modeRead | CFile::shareExclusive));
}

TEST_F(FileTest, PositionLengthAndNames)
{
    CFile file(m_strPath, CFile::modeCreate | CFile::modeReadWrite);
    file.Write("0123456789", 10);
    EXPECT_EQ(file.Seek(-3, CFile::end), 7u);
    EXPECT_EQ(file.Seek(1, CFile::current), 8u);
    EXPECT_EQ(CauseOf([&] { file.Seek(-1, CFile::begin); }), CFileException::badSeek);
    EXPECT_EQ(file.GetPosition(), 8u);
    char rest[8];
    EXPECT_EQ(file.Read(rest, 8), 2u);
    file.SetLength(4);
    EXPECT_EQ(file.GetPosition(), 4u);
    EXPECT_EQ(file.GetLength(), 4u);
    {
        std::unique_ptr<CFile> const pCopy(file.Duplicate());
        pCopy->Write("!", 1);
    }
    EXPECT_EQ(file.GetPosition(), 5u);
    CFile(file.m_hFile).Write("?", 1); // a given handle stays open
    file.SetFilePath(_T("C:\\data\\report.final.txt"));
    EXPECT_EQ(file.GetFileName(), _T("report.final.txt"));
    EXPECT_EQ(file.GetFileTitle(), _T("report.final"));
    EXPECT_TRUE(Raises<CNotSupportedException>([&] { file.LockRange(0, 1); }));
    file.Close();
    EXPECT_EQ(Content(), "0123!?");
    auto const strOther = m_strPath + _T(".moved");
    CFile::Rename(m_strPath, strOther);
    CFile::Remove(strOther);
    EXPECT_EQ(CauseOf([&] { CFile::Remove(strOther); }), CFileException::fileNotFound);
}

TEST_F(FileTest, AClosedFileRaises)
{
    CFile file;
    char byte = 0;
    for (int i = 0; i < 2; ++i)
    {
        for (auto const & action :
             std::initializer_list<std::function<void()>>{[&] { file.Read(&byte, 1); }, [&] { file.Write(&byte, 1); },
                                                          [&] { file.SeekToEnd(); }, [&] { file.GetLength(); },
                                                          [&] { file.SetLength(1); }, [&] { file.Flush(); }})
        {
            EXPECT_EQ(CauseOf(action), CFileException::invalidFile);
        }
        EXPECT_EQ(CauseOf([&] { file.Close(); }), 0);
        CFileException error;
        EXPECT_FALSE(file.Open(_T(""), CFile::modeRead, &error));
        EXPECT_EQ(error.m_cause, CFileException::badPath);
        EXPECT_TRUE(file.Open(m_strPath, CFile::modeRead));
        file.Abort();
    }
}

TEST(MemFile, GapsAreZeroAndSizesBounded)
{
    CMemFile file(16);
    file.Write("ab", 2);
    file.Seek(100, CFile::begin);
    EXPECT_EQ(file.GetLength(), 2u);
    char byte = 'x';
    EXPECT_EQ(file.Read(&byte, 1), 0u);
    file.Write("c", 1);
    EXPECT_EQ(file.GetLength(), 101u);
    file.Seek(-2, CFile::end);
    EXPECT_EQ(file.Read(&byte, 1), 1u);
    EXPECT_EQ(byte, 0);
    file.SetLength(1);
    EXPECT_EQ(file.GetPosition(), 1u);
    file.SetLength(3);
    file.SeekToBegin();
    char all[4] = "zzz";
    EXPECT_EQ(file.Read(all, 4), 3u);
    EXPECT_EQ(std::string(all, 3), std::string("a\0\0", 3));
    EXPECT_EQ(CauseOf([&] { file.Seek(-4, CFile::current); }), CFileException::badSeek);
    EXPECT_EQ(CauseOf([&] { file.Seek(std::numeric_limits<LONGLONG>::max(), CFile::current); }),
              CFileException::badSeek);
    file.Seek(0x7FFFFFFF, CFile::begin);
    EXPECT_TRUE(Raises<CMemoryException>([&] { file.Write("x", 1); }));
    EXPECT_TRUE(Raises<CMemoryException>([&] { file.SetLength(ULONGLONG{1} << 40); }));
}

TEST(MemFile, AttachedMemoryIsTheCallers)
{
    BYTE buffer[4] = {1, 2, 3, 4};
    CMemFile fixed(buffer, 4);
    EXPECT_EQ(fixed.GetLength(), 4u);
    void *pStart, *pEnd;
    fixed.Seek(1, CFile::begin);
    EXPECT_EQ(fixed.GetBufferPtr(CFile::bufferRead, 100, &pStart, &pEnd), 3u);
    EXPECT_EQ(pStart, buffer + 1);
    EXPECT_EQ(pEnd, buffer + 4);
    EXPECT_EQ(fixed.GetPosition(), 4u);
    EXPECT_TRUE(Raises<CMemoryException>([&] { fixed.Write("x", 1); }));
    EXPECT_EQ(fixed.Detach(), buffer);
    EXPECT_EQ(fixed.GetLength(), 0u);

    CMemFile growing(8);
    EXPECT_EQ(growing.GetBufferPtr(CFile::bufferWrite, 3, &pStart, &pEnd), 3u);
    std::memcpy(pStart, "xyz", 3);
    growing.GetBufferPtr(CFile::bufferCommit, 2);
    EXPECT_EQ(growing.GetLength(), 2u);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { growing.GetBufferPtr(CFile::bufferCommit, 100000); }));
    auto * pDetached = growing.Detach();
    ASSERT_TRUE(pDetached);
    EXPECT_EQ(pDetached[1], 'y');
    std::free(pDetached);
    growing.Close();
}

TEST(Time, FieldsAndFormats)
{
    CTime const time(2024, 2, 29, 0, 5, 9);
    EXPECT_EQ(time.Format(_T("%Y-%m-%d %H:%M:%S")), _T("2024-02-29 00:05:09"));
    EXPECT_EQ(time.Format(_T("%a %A %b %B %#d %I%p %j %U %W %w %y %% %D %#M")),
              _T("Thu Thursday Feb February 29 12AM 060 08 09 4 24 % 02/29/24 5"));
    EXPECT_EQ(time.GetDayOfWeek(), 5);
    SYSTEMTIME st;
    ASSERT_TRUE(time.GetAsSystemTime(st));
    EXPECT_EQ(CTime(st), time);
    EXPECT_EQ(CTime(86400).FormatGmt(_T("%c")), _T("Fri Jan  2 00:00:00 1970"));
    EXPECT_EQ(CTime(2024, 2, 30, 0, 0, 0).GetMonth(), 3);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { time.Format(_T("%")); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { time.Format(_T("%Q")); }));
    for (auto const & n :
         {std::array{1899, 1, 1, 0}, {2000, 13, 1, 0}, {2000, 1, 0, 0}, {2000, 1, 1, 24}, {1950, 1, 1, 0}})
    {
        EXPECT_TRUE(Raises<CInvalidArgException>([&] { CTime(n[0], n[1], n[2], n[3], 0, 0); })) << n[0];
    }
    EXPECT_TRUE(Raises<CInvalidArgException>([] { CTime(FILETIME{0, 0}); }));
    EXPECT_EQ(CTime(-1).GetYear(), 0);
    EXPECT_EQ(CTime(FILETIME{0xD53E8000, 0x019DB1DE}).GetTime(), 0);
}

TEST(Time, Spans)
{
    CTimeSpan const span(1000, 25, 61, 61);
    EXPECT_EQ(span.GetDays(), 1001);
    EXPECT_EQ(span.Format(_T("%D %H:%M:%S%%")), _T("1001 02:02:01%"));
    EXPECT_EQ(CTime(100) + CTimeSpan(50) - CTime(30), CTimeSpan(120));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { span.Format(_T("%Y")); }));
}

TEST(Sync, LocksAndEvents)
{
    CEvent automatic(TRUE);
    EXPECT_TRUE(automatic.Lock(0) && !automatic.Lock(0));
    CEvent manual(FALSE, TRUE);
    {
        CSingleLock lock(&manual);
        EXPECT_FALSE(lock.Lock(0) || lock.IsLocked());
        manual.SetEvent();
        EXPECT_TRUE(lock.Lock(0));
    }
    EXPECT_TRUE(manual.Lock(0)) << "a guard gives an event nothing back";

    CMutex mutex;
    CCriticalSection section;
    for (CSyncObject * pObject : std::initializer_list<CSyncObject *>{&mutex, &section})
    {
        CSingleLock outer(pObject, TRUE);
        EXPECT_TRUE(outer.Lock());
        EXPECT_TRUE(CSingleLock(pObject, TRUE).IsLocked());
        EXPECT_TRUE(outer.IsLocked() && outer.Unlock() && !outer.IsLocked());
    }
    EXPECT_FALSE(ReleaseMutex(mutex)) << "every lock was given back";
    EXPECT_TRUE(Raises<CInvalidArgException>([] { CSingleLock lock(nullptr); }));
}

TEST(Modules, AreListedUntilTheyEnd)
{
    int aModule, anotherModule;
    auto const hModule = reinterpret_cast<HMODULE>(&aModule);
    AFX_EXTENSION_MODULE state{}, other{};
    ASSERT_TRUE(AfxInitExtensionModule(state, hModule));
    ASSERT_TRUE(AfxInitExtensionModule(other, reinterpret_cast<HMODULE>(&anotherModule)));
    new CDynLinkLibrary(state);
    auto * pOther = new CDynLinkLibrary(other);
    new CDynLinkLibrary(state);
    AfxTermExtensionModule(state);
    EXPECT_EQ(CDynLinkLibrary::FromModule(hModule), nullptr);
    EXPECT_EQ(CDynLinkLibrary::FromModule(pOther->m_hModule), pOther);
    AfxTermExtensionModule(other);
    AfxTermExtensionModule(other);
}
