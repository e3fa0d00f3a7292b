#pragma once

#include "Handle.h"
#include "NoLeaks.h"
#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

#include <vector>

inline constexpr DWORD READ_WRITE = GENERIC_READ | GENERIC_WRITE;
inline constexpr DWORD UNTOUCHED = 12345;
inline constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Files : public TestFolder
{
protected:
    /// Opens an entry; null with m_dwError on failure.
    Handle Open(CString const & strName, DWORD dwAccess, DWORD dwDisposition, DWORD dwShare = SHARE_ALL,
                DWORD dwFlags = FILE_ATTRIBUTE_NORMAL)
    {
        SetLastError(UNTOUCHED);
        HANDLE const hFile = CreateFileW(Path(strName), dwAccess, dwShare, nullptr, dwDisposition, dwFlags, nullptr);
        m_dwError = GetLastError();
        return hFile;
    }

    /// The last error that an opening leaves.
    DWORD OpenError(CString const & strName, DWORD dwAccess, DWORD dwDisposition, DWORD dwShare = SHARE_ALL,
                    DWORD dwFlags = 0)
    {
        bool const bOpen = Open(strName, dwAccess, dwDisposition, dwShare, dwFlags) != nullptr;
        EXPECT_EQ(bOpen, m_dwError == UNTOUCHED || m_dwError == 0 || m_dwError == ERROR_ALREADY_EXISTS);
        return bOpen && m_dwError == UNTOUCHED ? 0 : m_dwError;
    }

    /// What is found, and the last error behind it.
    std::vector<WIN32_FIND_DATAW> Find(CString const & strPattern) const
    {
        std::vector<WIN32_FIND_DATAW> found;
        WIN32_FIND_DATAW data;
        HANDLE const hFind = FindFirstFileW(Path(strPattern), &data);
        if (hFind == INVALID_HANDLE_VALUE)
        {
            return found;
        }
        do
        {
            found.push_back(data);
        } while (FindNextFileW(hFind, &data));
        DWORD const dwError = GetLastError();
        EXPECT_TRUE(FindClose(hFind) && (host::IsWindows() || !FindClose(hFind)));
        SetLastError(dwError);
        return found;
    }

    DWORD m_dwError = 0;
    // Some come with the first use and stay.
    NoLeaks const m_noLeaks = (GetStdHandle(STD_OUTPUT_HANDLE), GetFileAttributesW(_T("/none")), NoLeaks());
};
