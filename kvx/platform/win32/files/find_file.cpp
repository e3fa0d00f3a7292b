/// Searches: FindFirstFileW and kin.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/files/attributes.h"
#include "kvx/platform/win32/files/folders.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/paths/name_pattern.h"
#include "kvx/platform/win32/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace kvx::win32
{

namespace
{

/// A search in progress.
class Find final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Find;

    /// A search that is over after its one entry.
    Find() noexcept : KernelObject(KIND), m_pattern(u""), m_pFolder(nullptr, closedir), m_nDots(2) {}

    using FolderPtr = std::unique_ptr<DIR, int (*)(DIR *)>;

    Find(FolderPtr pFolder, std::u16string_view pattern, bool bRoot)
        : KernelObject(KIND), m_pattern(pattern), m_pFolder(std::move(pFolder)), m_nDots(bRoot ? 2 : 0)
    {
    }

    bool Next(WIN32_FIND_DATAW & data)
    {
        std::scoped_lock const lock(m_mutex);
        while (m_nDots < 2)
        {
            std::u16string_view const name = m_nDots == 0 ? u"." : u"..";
            char const * const pszName = m_nDots == 0 ? "." : "..";
            ++m_nDots;
            if (m_pattern.Matches(name) && Fill(dirfd(m_pFolder.get()), pszName, name, DT_DIR, data))
            {
                return true;
            }
        }
        while (m_pFolder)
        {
            errno = 0;
            dirent const * const pEntry = readdir(m_pFolder.get());
            if (!pEntry)
            {
                if (errno != 0)
                {
                    return RefuseByErrno();
                }
                break;
            }
            std::string_view const bytes(pEntry->d_name);
            if (bytes == "." || bytes == "..")
            {
                continue;
            }
            std::u16string const strName = FromHost(bytes);
            if (m_pattern.Matches(strName) &&
                Fill(dirfd(m_pFolder.get()), pEntry->d_name, strName, pEntry->d_type, data))
            {
                return true;
            }
        }
        return Refuse(ERROR_NO_MORE_FILES);
    }

    /// False when the entry is gone by now, or its name is too long for the structure.
    static bool Fill(int nFolder, char const * pszName, std::u16string_view name, int nType, WIN32_FIND_DATAW & data)
    {
        struct statx info = {};
        if (Stat(nFolder, pszName, AT_SYMLINK_NOFOLLOW, info) != 0)
        {
            if (errno != EACCES || nType == DT_UNKNOWN)
            {
                return false;
            }
            // A folder that may be listed but not entered: the name and type are all that can be had.
            info.stx_mode = static_cast<std::uint16_t>(DTTOIF(nType) | S_IWUSR);
        }
        if (name.size() >= MAX_PATH)
        {
            return false;
        }
        data = {};
        Describe(info, data);
        if (S_ISLNK(info.stx_mode))
        {
            data.dwReserved0 = IO_REPARSE_TAG_SYMLINK;
        }
        std::ranges::copy(name, data.cFileName);
        return true;
    }

private:
    std::mutex m_mutex;
    NamePattern const m_pattern;
    std::unique_ptr<DIR, int (*)(DIR *)> m_pFolder;
    int m_nDots; ///< how many of "." and ".." are done with
};

Ref<Find> FindOne(std::u16string_view path, WIN32_FIND_DATAW & data)
{
    std::string strHost = ToHost(path, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return nullptr;
    }
    struct stat info;
    if (CallOnPath(strHost, [&](char const * p) { return lstat(p, &info); }) != 0)
    {
        SetLastErrorForPath(errno);
        return nullptr;
    }
    // A search answers with the name as it stands in the folder.
    std::string_view const name = std::string_view(strHost).substr(strHost.rfind('/') + 1);
    if (name.empty() || !Find::Fill(AT_FDCWD, strHost.c_str(), FromHost(name), DT_UNKNOWN, data))
    {
        Refuse(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    return Ref<Find>(new Find);
}

Ref<Find> FindMany(std::u16string_view folder, std::u16string_view pattern, WIN32_FIND_DATAW & data)
{
    std::string strFolder = folder.empty() ? "." : ToHost(folder, LastComponent::AsWritten);
    if (strFolder.empty())
    {
        return nullptr;
    }
    UniqueFd opened(CallOnPath(strFolder, [](char const * p) { return open(p, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    Find::FolderPtr pFolder(opened ? fdopendir(opened.Get()) : nullptr, closedir);
    if (pFolder)
    {
        opened.Detach();
    }
    else
    {
        SetLastErrorForFolder(errno, strFolder);
        if (GetLastError() == ERROR_FILE_NOT_FOUND)
        {
            SetLastError(ERROR_PATH_NOT_FOUND);
        }
        return nullptr;
    }
    bool const bRoot = strFolder == "/" || strFolder == GetDriveCRoot() || strFolder == GetDriveCRoot() + "/";
    Ref<Find> find(new Find(std::move(pFolder), pattern, bRoot));
    if (!find->Next(data))
    {
        if (GetLastError() == ERROR_NO_MORE_FILES)
        {
            Refuse(ERROR_FILE_NOT_FOUND);
        }
        return nullptr;
    }
    return find;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

HANDLE FindFirstFileW(LPCWSTR pszPattern, LPWIN32_FIND_DATAW pData)
try
{
    if (!pData)
    {
        Refuse(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::u16string_view const path(pszPattern ? pszPattern : u"");
    std::u16string_view const name = path.substr(NamePosition(path));
    Ref<Find> find;
    if (path.empty())
    {
        Refuse(ERROR_PATH_NOT_FOUND);
    }
    else if (name.empty())
    {
        Refuse(ERROR_FILE_NOT_FOUND);
    }
    else if (NamePattern::HasWildcards(name))
    {
        find = FindMany(path.substr(0, path.size() - name.size()), name, *pData);
    }
    else
    {
        find = FindOne(path, *pData);
    }
    HANDLE const hFind = find ? OpenHandle(find) : nullptr;
    return hFind ? hFind : INVALID_HANDLE_VALUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HANDLE>(INVALID_HANDLE_VALUE);
}

BOOL FindNextFileW(HANDLE hFind, LPWIN32_FIND_DATAW pData)
try
{
    Ref<Find> const find = FindObject<Find>(hFind);
    if (!find)
    {
        return FALSE;
    }
    return pData ? find->Next(*pData) : Refuse(ERROR_INVALID_PARAMETER);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL FindClose(HANDLE hFind)
{
    return CloseObject(hFind, &IsOfKind<Find>);
}
