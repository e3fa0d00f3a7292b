#pragma once

/// What a process has of the names that it serves.

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/pipes/pipe_files.h"
#include "kvx/platform/win32/types.h"
#include "kvx/platform/win32/unique_fd.h"

#include <map>
#include <memory>
#include <string>
#include <tuple>

#include <sys/types.h>

namespace kvx::win32
{

/// For all pipes of the process.
extern constinit FutexMutex g_pipesLock;

/// What the instances of one name in this process share: the listening socket, and the lock that tells the living from
/// the dead. The socket's descriptor is closed with the last instance that could wait for it, everything else by Leave.
/// All members but GetListener are called under the lock of all pipes.
class PipeServer
{
public:
    /// The server of a name with one more instance, a free one; null with last error.
    static std::shared_ptr<PipeServer> Join(std::string const & strFile, DWORD dwAccess, DWORD nMaxInstances);

    using Key = std::tuple<dev_t, ino_t, std::string>;

    PipeServer(Key key, UniqueFd folder, DWORD dwAccess, DWORD nMaxInstances)
        : m_key(std::move(key)), m_folder(std::move(folder)), m_dwAccess(dwAccess), m_nMaxInstances(nMaxInstances),
          m_files(std::get<2>(m_key), 0)
    {
    }

    int GetListener() const { return m_listener.Get(); }

    /// False with errno if clients can't be shown that one is free.
    bool AddFree();
    void TakeFree();
    void Leave();

private:
    static std::map<Key, std::shared_ptr<PipeServer>> & GetAll();

    enum class Slot
    {
        Taken,
        Living,
        Failed
    };

    bool Open();
    /// Locks the slot's file. A process that leaves removes its file, so the locked one must still be the one that is
    /// there.
    Slot TakeSlot();
    /// The socket gets its name when it listens, and takes the place of one that a dead process left behind.
    bool Listen();

    Key const m_key;
    UniqueFd const m_folder;
    DWORD const m_dwAccess;
    DWORD const m_nMaxInstances;
    SlotFiles m_files;
    UniqueFd m_lock;
    UniqueFd m_listener;
    DWORD m_nInstances = 0;
    DWORD m_nFree = 0;
};

} // namespace kvx::win32
