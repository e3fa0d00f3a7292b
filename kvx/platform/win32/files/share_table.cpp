#include "kvx/platform/win32/files/share_table.h"

#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/termination.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <vector>

namespace kvx::win32
{

namespace
{

/// The openings of all plain files of the process.
class ShareTable
{
public:
    bool Enter(Opening const & opening)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        auto & openings = m_openings[{opening.device, opening.inode}];
        for (Opening const & other : openings)
        {
            if ((opening.dwAccess & ~other.dwShare) || (other.dwAccess & ~opening.dwShare))
            {
                return false;
            }
        }
        openings.push_back(opening);
        return true;
    }

    void Leave(Opening const & opening)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        auto const it = m_openings.find({opening.device, opening.inode});
        auto & openings = it->second;
        auto const found =
            std::ranges::find_if(openings, [&](Opening const & other)
                                 { return other.dwAccess == opening.dwAccess && other.dwShare == opening.dwShare; });
        openings.erase(found);
        if (openings.empty())
        {
            m_openings.erase(it);
        }
    }

    /// Whether every opening of the file lets it be deleted or renamed.
    bool MayDelete(dev_t device, ino_t inode)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        auto const it = m_openings.find({device, inode});
        return it == m_openings.end() || std::ranges::all_of(it->second, [](Opening const & opening)
                                                             { return (opening.dwShare & FILE_SHARE_DELETE) != 0; });
    }

private:
    std::mutex m_mutex;
    std::map<std::pair<dev_t, ino_t>, std::vector<Opening>> m_openings;
};

ShareTable & Shares()
{
    UninterruptedScope const scope;
    static ShareTable & table = *new ShareTable; // outlives handles that are closed at the process's end
    return table;
}

} // namespace

bool EnterOpening(Opening const & opening)
{
    return Shares().Enter(opening);
}

void LeaveOpening(Opening const & opening) noexcept
{
    Shares().Leave(opening);
}

bool MayDeleteFile(dev_t device, ino_t inode)
{
    return Shares().MayDelete(device, inode);
}

} // namespace kvx::win32
