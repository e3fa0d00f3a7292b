#include "kvx/platform/win32/paths/folder_index.h"

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/paths/folded_names.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/unique_fd.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

using FolderId = std::pair<dev_t, ino_t>;

/// When a folder was last changed, and whether a later change is bound to show another time.
struct Stamp
{
    timespec changed{};
    bool bSettled = false;

    bool IsStill(Stamp const & now) const
    {
        return bSettled && changed.tv_sec == now.changed.tv_sec && changed.tv_nsec == now.changed.tv_nsec;
    }
};

/// A folder as it is at one moment.
struct Moment
{
    FolderId id;
    Stamp stamp;
};

/// `getStatus` is called after the clock has been read: the kernel takes the times of files from that clock, which
/// moves in steps of up to 10 ms. So what changes from here on gets a later time than one that is some steps old.
template <class GetStatus>
std::optional<Moment> TakeMoment(GetStatus getStatus)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    struct stat info;
    if (getStatus(info) != 0)
    {
        return std::nullopt;
    }
    if (!S_ISDIR(info.st_mode))
    {
        errno = ENOTDIR;
        return std::nullopt;
    }
    // A time of whole seconds is the mark of a file system that keeps no finer ones.
    std::int64_t const nSteps = info.st_ctim.tv_nsec == 0 ? 1'100'000'000 : 50'000'000;
    std::int64_t const nSeconds = now.tv_sec - info.st_ctim.tv_sec;
    bool const bSettled =
        nSeconds > 1 || (nSeconds >= 0 && nSeconds * 1'000'000'000 + now.tv_nsec - info.st_ctim.tv_nsec > nSteps);
    return Moment{{info.st_dev, info.st_ino}, {info.st_ctim, bSettled}};
}

/// Whether all changes to a file system go through this machine's kernel.
bool IsLocal(int nDescriptor)
{
    // Folders may be without regard to case by themselves, by rules of their own.
    constexpr int ANY_CASE = 0x40000000;
    int nAttributes = 0;
    if (::ioctl(nDescriptor, FS_IOC_GETFLAGS, &nAttributes) == 0 && (nAttributes & ANY_CASE) != 0)
    {
        return false;
    }
    constexpr std::array<unsigned long, 12> LOCAL{
        0xEF53,     0x58465342, 0x9123683E, 0x01021994, // ext, XFS, Btrfs, tmpfs
        0x858458F6, 0x794C7630, 0xF2F52010, 0x2FC12FC1, // ramfs, overlays, F2FS, ZFS
        0xCA451A4E, 0x52654973, 0x3153464A, 0xE0F5E1E2, // bcachefs, ReiserFS, JFS, EROFS
    };
    struct statfs info;
    return ::fstatfs(nDescriptor, &info) == 0 &&
           std::ranges::find(LOCAL, static_cast<unsigned long>(info.f_type) & 0xFFFFFFFF) != LOCAL.end();
}

struct Change
{
    std::uint32_t nMask;
    std::string strName;
};

struct Folder
{
    FoldedNames names;
    Stamp stamp;
    int nWatch = -1;
    std::uint64_t nLastUse = 0;
    std::uint64_t nScan = 0; ///< not 0 while somebody reads the folder; then changes are put by
    std::vector<Change> changes;
};

/// Brings the names up to date; false if it can't be told what they are now.
bool Apply(FoldedNames & names, std::uint32_t nMask, std::string_view name)
{
    if (nMask & IN_CREATE)
    {
        names.Insert(name);
    }
    else if (nMask & IN_MOVED_TO)
    {
        names.InsertMoved(name);
    }
    else if (nMask & IN_DELETE)
    {
        names.Erase(name);
    }
    else if (nMask & IN_MOVED_FROM)
    {
        return names.EraseMoved(name);
    }
    return true;
}

class FolderIndex
{
public:
    /// The index of this process.
    static FolderIndex & Get();

    /// The answer if the folder is known; `strFound` is empty for a missing name.
    bool Find(Moment const & moment, std::string_view name, std::string & strFound, bool bOnlyUnchanged = false);

    /// Announces that the caller is about to read the folder. 0 if it needn't be remembered: it is already, or somebody
    /// else is reading it.
    std::uint64_t BeginScan(Moment const & moment, int nDescriptor);
    /// Takes over what the caller has read, and brings it up to date; without names, only forgets the folder.
    void EndScan(std::uint64_t nScan, Moment const & moment, std::optional<FoldedNames> names);

    static constexpr std::size_t MAX_NAMES = 1'000'000;

private:
    using Folders = std::map<FolderId, Folder>;

    static constexpr std::size_t MAX_FOLDERS = 128;
    static constexpr std::size_t MAX_PUT_BY = 65'536;
    static constexpr std::size_t TRIM_AFTER = 10'000;

    static void OnForked() noexcept;

    void Drain();
    void OnEvent(inotify_event const & event);
    void Drop(Folders::iterator it);
    void DropOldest();
    void Trim();

    static constinit inline std::atomic<FolderIndex *> sm_pInstance{nullptr};

    FutexMutex m_lock;
    Folders m_folders;
    std::unordered_map<int, FolderId> m_watches;
    UniqueFd m_notifications;
    std::uint64_t m_nUses = 0;
    std::size_t m_nAdded = 0; // since the last Trim
    alignas(inotify_event) std::array<char, 32 * 1024> m_buffer;
};

FolderIndex & FolderIndex::Get()
{
    if (FolderIndex * const pInstance = sm_pInstance.load(std::memory_order_acquire)) [[likely]]
    {
        return *pInstance;
    }
    // Never destroyed: threads may look for files until the process has ended.
    UninterruptedScope const scope;
    std::unique_ptr<FolderIndex> fresh(new FolderIndex);
    fresh->m_notifications = UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    FolderIndex * pInstance = nullptr;
    if (!sm_pInstance.compare_exchange_strong(pInstance, fresh.get(), std::memory_order_acq_rel))
    {
        return *pInstance;
    }
    static constinit std::atomic<bool> s_bRegistered{false};
    if (!s_bRegistered.exchange(true))
    {
        ::pthread_atfork(nullptr, nullptr, &OnForked);
    }
    return *fresh.release();
}

/// The notifications are the parent's, and another thread of it may have been at work on all the rest.
void FolderIndex::OnForked() noexcept
{
    if (FolderIndex * const pParents = sm_pInstance.exchange(nullptr))
    {
        pParents->m_notifications.Reset();
    }
}

bool FolderIndex::Find(Moment const & moment, std::string_view name, std::string & strFound, bool bOnlyUnchanged)
{
    UninterruptedScope const scope;
    FutexGuard const guard(m_lock);
    auto it = m_folders.find(moment.id);
    if (it == m_folders.end() || it->second.nScan != 0)
    {
        return false;
    }
    if (!it->second.stamp.IsStill(moment.stamp))
    {
        if (bOnlyUnchanged)
        {
            return false;
        }
        if (it->second.nWatch < 0)
        {
            Drop(it);
            return false;
        }
        Drain();
        it = m_folders.find(moment.id);
        if (it == m_folders.end())
        {
            return false;
        }
        it->second.stamp = moment.stamp;
    }
    it->second.nLastUse = ++m_nUses;
    strFound = it->second.names.Find(name);
    return true;
}

std::uint64_t FolderIndex::BeginScan(Moment const & moment, int nDescriptor)
{
    if (!IsLocal(nDescriptor))
    {
        return 0;
    }
    UninterruptedScope const scope;
    FutexGuard const guard(m_lock);
    if (m_folders.contains(moment.id))
    {
        return 0;
    }
    if (m_folders.size() >= MAX_FOLDERS)
    {
        DropOldest();
    }
    auto const it = m_folders.try_emplace(moment.id).first;
    Folder & folder = it->second;
    folder.nScan = folder.nLastUse = ++m_nUses;
    folder.stamp = moment.stamp;
    if (m_notifications)
    {
        // By way of the descriptor: the path may lead to another folder by now.
        folder.nWatch =
            ::inotify_add_watch(m_notifications.Get(), ("/proc/self/fd/" + std::to_string(nDescriptor)).c_str(),
                                IN_CREATE | IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_ONLYDIR);
    }
    if (folder.nWatch < 0)
    {
        if (moment.stamp.bSettled)
        {
            return folder.nScan;
        }
        m_folders.erase(it); // what is read now couldn't be relied on
        return 0;
    }
    // The same folder may have had another number, before an overlay copied it.
    auto const before = m_watches.find(folder.nWatch);
    if (before != m_watches.end() && before->second != moment.id)
    {
        m_folders.erase(before->second);
    }
    m_watches.insert_or_assign(folder.nWatch, moment.id);
    return folder.nScan;
}

void FolderIndex::EndScan(std::uint64_t nScan, Moment const & moment, std::optional<FoldedNames> names)
{
    UninterruptedScope const scope;
    FutexGuard const guard(m_lock);
    Drain();
    auto const it = m_folders.find(moment.id);
    if (it == m_folders.end() || it->second.nScan != nScan)
    {
        return;
    }
    if (!names)
    {
        Drop(it);
        return;
    }
    Folder & folder = it->second;
    for (Change const & change : std::exchange(folder.changes, {}))
    {
        if (!Apply(*names, change.nMask, change.strName))
        {
            Drop(it);
            return;
        }
    }
    m_nAdded += names->GetCount();
    folder.names = std::move(*names);
    folder.nScan = 0;
    if (m_nAdded > TRIM_AFTER)
    {
        Trim();
    }
}

/// Reads what the kernel has to tell. It tells of a change before the call that makes it returns.
void FolderIndex::Drain()
{
    constexpr std::size_t LONGEST = sizeof(inotify_event) + NAME_MAX + 1;
    ssize_t nRead = 0;
    do
    {
        nRead = m_notifications ? ::read(m_notifications.Get(), m_buffer.data(), m_buffer.size()) : 0;
        for (ssize_t n = 0; n < nRead;)
        {
            auto const & event = *reinterpret_cast<inotify_event const *>(m_buffer.data() + n);
            OnEvent(event);
            n += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
        }
    } while (nRead > static_cast<ssize_t>(m_buffer.size() - LONGEST));
    if (m_nAdded > TRIM_AFTER)
    {
        Trim();
    }
}

void FolderIndex::OnEvent(inotify_event const & event)
{
    if (event.mask & IN_Q_OVERFLOW)
    {
        while (!m_folders.empty())
        {
            Drop(m_folders.begin());
        }
        return;
    }
    auto const watch = m_watches.find(event.wd);
    if (watch == m_watches.end())
    {
        return;
    }
    auto const it = m_folders.find(watch->second);
    if (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_UNMOUNT))
    {
        Drop(it);
        return;
    }
    Folder & folder = it->second;
    std::string_view const name(event.name);
    if (folder.nScan != 0)
    {
        folder.changes.push_back({event.mask, std::string(name)});
        if (folder.changes.size() > MAX_PUT_BY)
        {
            Drop(it);
        }
        return;
    }
    ++m_nAdded;
    if (!Apply(folder.names, event.mask, name))
    {
        Drop(it);
    }
}

void FolderIndex::Drop(Folders::iterator it)
{
    if (it->second.nWatch >= 0)
    {
        m_watches.erase(it->second.nWatch);
        ::inotify_rm_watch(m_notifications.Get(), it->second.nWatch);
    }
    m_folders.erase(it);
}

void FolderIndex::DropOldest()
{
    Drop(std::ranges::min_element(m_folders, {}, [](auto const & entry) { return entry.second.nLastUse; }));
}

/// Keeps the sum of all names within bounds.
void FolderIndex::Trim()
{
    m_nAdded = 0;
    for (;;)
    {
        std::size_t nNames = 0;
        for (auto const & [id, folder] : m_folders)
        {
            nNames += folder.names.GetCount();
        }
        if (nNames <= MAX_NAMES)
        {
            return;
        }
        DropOldest();
    }
}

/// The folder that RecallName answers for, by the hash of its path; a wrong one costs no more than a system call.
constinit thread_local std::size_t g_nRecalled = 0;

std::size_t HashOfPath(char const * pszFolder)
{
    return std::hash<std::string_view>()(pszFolder);
}

} // namespace

NameLookup FindName(char const * pszFolder, std::string_view name, std::string & strFound)
{
    strFound.clear();
    auto const found = [&] { return strFound.empty() ? NameLookup::Missing : NameLookup::Found; };
    FolderIndex & index = FolderIndex::Get();
    std::optional<Moment> moment = TakeMoment([&](struct stat & info) { return ::stat(pszFolder, &info); });
    if (!moment)
    {
        return NameLookup::NoFolder;
    }
    if (name == "." || name == "..")
    {
        strFound = name;
        return NameLookup::Found;
    }
    if (index.Find(*moment, name, strFound))
    {
        if (strFound != name)
        {
            g_nRecalled = HashOfPath(pszFolder);
        }
        return found();
    }

    UniqueFd folder(::open(pszFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
    {
        return NameLookup::Missing; // nor could anybody else find out
    }
    moment = TakeMoment([&](struct stat & info) { return ::fstat(folder.Get(), &info); });
    if (!moment)
    {
        return NameLookup::Missing;
    }
    std::uint64_t const nScan = index.BeginScan(*moment, folder.Get());
    std::optional<FoldedNames> names;
    if (nScan != 0)
    {
        names.emplace();
    }
    std::unique_ptr<DIR, int (*)(DIR *)> const entries(::fdopendir(folder.Get()), &::closedir);
    if (entries)
    {
        folder.Detach();
    }
    for (;;)
    {
        errno = 0;
        dirent const * const pEntry = entries ? ::readdir(entries.get()) : nullptr;
        if (!pEntry)
        {
            if (!entries || errno != 0)
            {
                names.reset(); // there may be more
            }
            break;
        }
        std::string_view const entry(pEntry->d_name);
        if (entry == "." || entry == "..")
        {
            continue;
        }
        if (names && names->GetCount() < FolderIndex::MAX_NAMES)
        {
            names->Insert(entry);
        }
        else
        {
            names.reset();
        }
        if (strFound != name && (strFound.empty() || entry == name || entry < strFound) && IsSameHostName(entry, name))
        {
            strFound = entry;
        }
    }
    if (nScan != 0)
    {
        index.EndScan(nScan, *moment, std::move(names));
    }
    return found();
}

std::optional<NameLookup> RecallName(char const * pszFolder, std::string_view name, std::string & strFound)
{
    if (g_nRecalled == 0 || g_nRecalled != HashOfPath(pszFolder) || name == "." || name == "..")
    {
        return std::nullopt;
    }
    std::optional<Moment> const moment = TakeMoment([&](struct stat & info) { return ::stat(pszFolder, &info); });
    bool const bKnown = moment && FolderIndex::Get().Find(*moment, name, strFound, true);
    if (!bKnown || strFound == name)
    {
        g_nRecalled = 0;
    }
    if (!bKnown)
    {
        return std::nullopt;
    }
    return strFound.empty() ? NameLookup::Missing : NameLookup::Found;
}

} // namespace kvx::win32
