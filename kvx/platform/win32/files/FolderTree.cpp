#include "kvx/platform/FolderTree.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files/share_table.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/paths/name_pattern.h"
#include "kvx/platform/win32/unique_fd.h"

#include <cerrno>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx
{

namespace
{

using namespace kvx::win32;

constexpr int FOLDER_FLAGS = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// A folder whose entries were read, all at once: what becomes of them while they are looked at disturbs nothing.
class TreeFolder
{
public:
    /// errno is 0 if all went well.
    explicit TreeFolder(UniqueFd opened)
    {
        int const nFolder = opened.Get();
        std::unique_ptr<DIR, int (*)(DIR *)> pFolder(nFolder >= 0 ? fdopendir(nFolder) : nullptr, closedir);
        if (!pFolder)
        {
            return;
        }
        opened.Detach();
        struct stat info;
        if (fstat(nFolder, &info) != 0)
        {
            return;
        }
        m_device = info.st_dev;
        m_inode = info.st_ino;
        errno = 0;
        while (dirent const * const pEntry = readdir(pFolder.get()))
        {
            std::string_view const name(pEntry->d_name);
            if (name != "." && name != "..")
            {
                Add(nFolder, pEntry->d_type, pEntry->d_ino, name);
            }
            errno = 0;
        }
        m_pFolder = std::move(pFolder);
    }

    explicit operator bool() const { return m_pFolder || m_bClosed; }
    int GetFd() const { return m_pFolder ? dirfd(m_pFolder.get()) : -1; }
    dev_t GetDevice() const { return m_device; }

    struct Entry
    {
        bool bFolder;
        bool bPlain;
        ino_t inode;
        char const * pszName;
    };

    /// False behind the last.
    bool Next(Entry & entry)
    {
        if (m_nNext == m_entries.size())
        {
            return false;
        }
        char const * const pHead = m_entries.data() + m_nNext;
        entry.bFolder = pHead[0] == DT_DIR;
        entry.bPlain = pHead[0] == DT_REG;
        entry.inode = 0;
        std::char_traits<char>::copy(reinterpret_cast<char *>(&entry.inode), pHead + 1, sizeof(ino_t));
        entry.pszName = pHead + 1 + sizeof(ino_t);
        m_nNext += 2 + sizeof(ino_t) + std::string_view(entry.pszName).size();
        return true;
    }

    void Close()
    {
        m_bClosed = true;
        m_pFolder.reset();
    }

    /// By the way up from a folder in it. False if that has been moved elsewhere.
    bool Reopen(int nBelow)
    {
        UniqueFd opened(openat(nBelow, "..", FOLDER_FLAGS));
        struct stat info;
        if (!opened || fstat(opened.Get(), &info) != 0 || info.st_dev != m_device || info.st_ino != m_inode)
        {
            return false;
        }
        m_pFolder.reset(fdopendir(opened.Get()));
        if (m_pFolder)
        {
            opened.Detach();
        }
        return m_pFolder != nullptr;
    }

private:
    std::unique_ptr<DIR, int (*)(DIR *)> m_pFolder{nullptr, closedir};
    bool m_bClosed = false;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    std::string m_entries; // each its type, its inode and its name with a zero
    std::size_t m_nNext = 0;

    void Add(int nFolder, unsigned char nType, ino_t inode, std::string_view name)
    {
        struct stat info;
        if (nType == DT_UNKNOWN && fstatat(nFolder, name.data(), &info, AT_SYMLINK_NOFOLLOW) == 0)
        {
            nType = static_cast<unsigned char>(IFTODT(info.st_mode));
        }
        m_entries += static_cast<char>(nType);
        m_entries.append(reinterpret_cast<char const *>(&inode), sizeof inode);
        m_entries.append(name.data(), name.size() + 1);
    }
};

/// The way from the folder that was named to the one that is looked at.
class TreeWalk
{
public:
    /// False with errno.
    bool Enter(UniqueFd opened)
    {
        constexpr std::size_t MOST_OPEN = 24; // a process may have as few as 256 descriptors
        TreeFolder folder(std::move(opened));
        if (!folder)
        {
            return false;
        }
        int const nError = errno;
        if (m_folders.size() >= MOST_OPEN)
        {
            m_folders[m_folders.size() - MOST_OPEN].Close();
        }
        m_folders.push_back(std::move(folder));
        errno = nError;
        return nError == 0;
    }

    /// Back up. False if there is no way.
    bool Leave()
    {
        bool const bBack = m_folders.size() < 2 || m_folders[m_folders.size() - 2].GetFd() >= 0 ||
                           m_folders[m_folders.size() - 2].Reopen(m_folders.back().GetFd());
        m_folders.pop_back();
        return bBack;
    }

    bool IsEmpty() const { return m_folders.empty(); }
    TreeFolder & Current() { return m_folders.back(); }
    std::size_t GetDepth() const { return m_folders.size(); }

private:
    std::deque<TreeFolder> m_folders; // which don't move: others point to the names that they hold
};

/// With a separator at its end, without which a drive alone would be the current folder.
std::u16string AsFolder(std::u16string_view folder)
{
    std::u16string strFolder(folder);
    if (!strFolder.ends_with(u'\\') && !strFolder.ends_with(u'/'))
    {
        strFolder += u'\\';
    }
    return strFolder;
}

/// Nothing with the last error. A link that is the folder itself is followed only with `bThroughLink`.
UniqueFd OpenTree(std::u16string const & folder, bool bThroughLink)
{
    std::string strHost = ToHost(folder, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return {};
    }
    while (!bThroughLink && strHost.size() > 1 && strHost.back() == '/')
    {
        strHost.pop_back(); // it would lead through the link
    }
    int const nFlags = FOLDER_FLAGS | (bThroughLink ? 0 : O_NOFOLLOW);
    UniqueFd opened(CallOnPath(strHost, [&](char const * p) { return open(p, nFlags); }));
    if (!opened)
    {
        int const nError = errno;
        struct stat info;
        std::string const strThing = strHost.substr(0, strHost.find_last_not_of('/') + 1);
        if (nError == ENOTDIR && lstat(strThing.c_str(), &info) == 0)
        {
            SetLastError(ERROR_DIRECTORY);
        }
        else
        {
            SetLastError(nError == ENOENT || nError == ENOTDIR ? static_cast<DWORD>(ERROR_PATH_NOT_FOUND)
                                                               : static_cast<DWORD>(ErrorFromErrno(nError)));
        }
    }
    return opened;
}

/// A folder that isn't there any more, or is a link by now, is none that couldn't be read.
bool IsGone(int nErrno)
{
    return nErrno == ENOENT || nErrno == ENOTDIR || nErrno == ELOOP;
}

} // namespace

DWORD VisitFolderTree(std::u16string_view folder, LPCWSTR pattern, bool bRecursive,
                      std::function<void(FolderTreeEntry const &)> const & visit)
{
    DWORD dwError = 0;
    auto const note = [&] { dwError = errno != 0 ? static_cast<DWORD>(ErrorFromErrno(errno)) : dwError; };
    std::u16string strFolder = AsFolder(folder);
    UniqueFd top = OpenTree(strFolder, true);
    if (!top)
    {
        return GetLastError();
    }
    TreeWalk walk;
    if (!walk.Enter(std::move(top)))
    {
        note();
    }
    NamePattern const matched(pattern);
    std::vector<std::size_t> lengths; // of the paths of the folders above
    while (!walk.IsEmpty())
    {
        TreeFolder::Entry entry;
        if (!walk.Current().Next(entry))
        {
            if (!walk.Leave())
            {
                return ERROR_PATH_NOT_FOUND;
            }
            if (!lengths.empty())
            {
                strFolder.resize(lengths.back());
                lengths.pop_back();
            }
            continue;
        }
        std::u16string const strName = FromHost(entry.pszName);
        if (entry.bFolder || matched.Matches(strName))
        {
            visit({strFolder, strName, entry.bFolder});
        }
        if (!entry.bFolder || !bRecursive)
        {
            continue;
        }
        std::size_t const nDepth = walk.GetDepth();
        UniqueFd below(openat(walk.Current().GetFd(), entry.pszName, FOLDER_FLAGS | O_NOFOLLOW));
        if ((!below || !walk.Enter(std::move(below))) && !IsGone(errno))
        {
            note();
        }
        if (walk.GetDepth() > nDepth)
        {
            lengths.push_back(strFolder.size());
            strFolder.append(strName).append(1, u'\\');
        }
    }
    return dwError;
}

void EmptyFolderTree(std::u16string_view folder, bool bThroughLink)
{
    TreeWalk walk;
    if (UniqueFd top = OpenTree(AsFolder(folder), bThroughLink))
    {
        walk.Enter(std::move(top));
    }
    std::vector<char const *> names; // of the folders on the way, which their parents hold
    while (!walk.IsEmpty())
    {
        TreeFolder & current = walk.Current();
        TreeFolder::Entry entry;
        if (!current.Next(entry))
        {
            if (!walk.Leave())
            {
                return;
            }
            if (!names.empty())
            {
                unlinkat(walk.Current().GetFd(), names.back(), AT_REMOVEDIR);
                names.pop_back();
            }
            continue;
        }
        if (!entry.bFolder)
        {
            if (!entry.bPlain || MayDeleteFile(current.GetDevice(), entry.inode))
            {
                unlinkat(current.GetFd(), entry.pszName, 0);
            }
            continue;
        }
        std::size_t const nDepth = walk.GetDepth();
        if (UniqueFd below(openat(current.GetFd(), entry.pszName, FOLDER_FLAGS | O_NOFOLLOW)); below)
        {
            walk.Enter(std::move(below));
        }
        else
        {
            unlinkat(current.GetFd(), entry.pszName, AT_REMOVEDIR); // empty, perhaps
        }
        if (walk.GetDepth() > nDepth)
        {
            names.push_back(entry.pszName);
        }
    }
}

} // namespace kvx
