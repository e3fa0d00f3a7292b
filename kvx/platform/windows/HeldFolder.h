#pragma once

#include "kvx/platform/host.h"

#include <string>
#include <utility>

namespace kvx::windows
{
/// Keeps a folder what and where it is as long as it lives: nobody can move or delete it meanwhile.
class HeldFolder
{
public:
    enum class Links
    {
        Follow,
        Open // the link itself
    };

    HeldFolder(std::wstring const & path, Links links)
        : m_handle(CreateFileW(
              path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
              FILE_FLAG_BACKUP_SEMANTICS | (links == Links::Open ? DWORD{FILE_FLAG_OPEN_REPARSE_POINT} : 0), nullptr))
    {
    }
    HeldFolder(HeldFolder && other) noexcept : m_handle(std::exchange(other.m_handle, INVALID_HANDLE_VALUE)) {}
    HeldFolder & operator=(HeldFolder && other) noexcept
    {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~HeldFolder()
    {
        if (m_handle != INVALID_HANDLE_VALUE)
        {
            CloseHandle(m_handle);
        }
    }

    bool IsOpen() const { return m_handle != INVALID_HANDLE_VALUE; }

    /// A folder as it is now: neither a file, nor a link, nor anything that couldn't be opened.
    bool IsReal() const
    {
        BY_HANDLE_FILE_INFORMATION info;
        return IsOpen() && GetFileInformationByHandle(m_handle, &info) &&
               (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
                   FILE_ATTRIBUTE_DIRECTORY;
    }

    /// Where it is, without any link, as `\\?\C:\...`; empty with the last error.
    std::wstring GetPath() const { return GetPath(m_handle); }
    static std::wstring GetPath(HANDLE handle)
    {
        std::wstring path(32768, L'\0');
        DWORD const length = GetFinalPathNameByHandleW(handle, path.data(), static_cast<DWORD>(path.size()), 0);
        path.resize(length < path.size() ? length : 0);
        return path;
    }

private:
    HANDLE m_handle;
};
} // namespace kvx::windows
