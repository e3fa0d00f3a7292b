#include "kvx/platform/win32/pipes/pipe_server.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/runtime_dir.h"

#include <cerrno>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

constinit FutexMutex g_pipesLock;

std::shared_ptr<PipeServer> PipeServer::Join(std::string const & strFile, DWORD dwAccess, DWORD nMaxInstances)
{
    UniqueFd folder = OpenRuntimeFolder();
    struct stat info;
    if (!folder || ::fstat(folder.Get(), &info) != 0)
    {
        return nullptr;
    }
    Key key(info.st_dev, info.st_ino, strFile);
    auto & all = GetAll();
    auto const it = all.find(key);
    if (it == all.end())
    {
        auto const server = std::make_shared<PipeServer>(std::move(key), std::move(folder), dwAccess, nMaxInstances);
        if (!server->Open())
        {
            return nullptr;
        }
        all.emplace(server->m_key, server);
        server->m_nInstances = server->m_nFree = 1;
        return server;
    }
    PipeServer & server = *it->second;
    if (server.m_dwAccess != dwAccess)
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    if (server.m_nMaxInstances < PIPE_UNLIMITED_INSTANCES && server.m_nInstances >= server.m_nMaxInstances)
    {
        SetLastError(ERROR_PIPE_BUSY);
        return nullptr;
    }
    if (!server.AddFree())
    {
        SetLastErrorFromErrno();
        return nullptr;
    }
    ++server.m_nInstances;
    return it->second;
}

bool PipeServer::AddFree()
{
    if (m_nFree == 0 &&
        ::renameat(m_folder.Get(), m_files.strBusy.c_str(), m_folder.Get(), m_files.strSocket.c_str()) != 0 &&
        errno != ENOENT)
    {
        return false;
    }
    ++m_nFree;
    return true;
}

void PipeServer::TakeFree()
{
    if (--m_nFree == 0)
    {
        ::renameat(m_folder.Get(), m_files.strSocket.c_str(), m_folder.Get(), m_files.strBusy.c_str());
    }
}

void PipeServer::Leave()
{
    if (--m_nInstances > 0)
    {
        return;
    }
    ::unlinkat(m_folder.Get(), m_files.strSocket.c_str(), 0);
    ::unlinkat(m_folder.Get(), m_files.strBusy.c_str(), 0);
    ::unlinkat(m_folder.Get(), m_files.strLock.c_str(), 0);
    m_lock.Reset();
    GetAll().erase(m_key);
}

std::map<PipeServer::Key, std::shared_ptr<PipeServer>> & PipeServer::GetAll()
{
    static auto & all = *new std::map<Key, std::shared_ptr<PipeServer>>; // outlives handles closed at the end
    return all;
}

bool PipeServer::Open()
{
    for (int nSlot = 0; nSlot < MAX_PIPE_SERVERS; ++nSlot)
    {
        m_files = SlotFiles(std::get<2>(m_key), nSlot);
        switch (TakeSlot())
        {
        case Slot::Taken:
            if (Listen())
            {
                return true;
            }
            SetLastErrorFromErrno();
            ::unlinkat(m_folder.Get(), m_files.strNew.c_str(), 0);
            ::unlinkat(m_folder.Get(), m_files.strLock.c_str(), 0);
            return false;
        case Slot::Failed:
            SetLastErrorFromErrno();
            return false;
        case Slot::Living:
            break;
        }
    }
    SetLastError(ERROR_PIPE_BUSY);
    return false;
}

PipeServer::Slot PipeServer::TakeSlot()
{
    for (;;)
    {
        m_lock = UniqueFd(::openat(m_folder.Get(), m_files.strLock.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                                   S_IRUSR | S_IWUSR));
        if (!m_lock)
        {
            return Slot::Failed;
        }
        flock lock = WholeFile();
        if (::fcntl(m_lock.Get(), F_OFD_SETLK, &lock) != 0)
        {
            return errno == EAGAIN || errno == EACCES ? Slot::Living : Slot::Failed;
        }
        struct stat mine;
        struct stat there;
        if (::fstat(m_lock.Get(), &mine) != 0)
        {
            return Slot::Failed;
        }
        if (::fstatat(m_folder.Get(), m_files.strLock.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
            mine.st_ino == there.st_ino && mine.st_dev == there.st_dev)
        {
            return Slot::Taken;
        }
    }
}

bool PipeServer::Listen()
{
    m_listener = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_listener)
    {
        return false;
    }
    ::unlinkat(m_folder.Get(), m_files.strNew.c_str(), 0);
    ::unlinkat(m_folder.Get(), m_files.strBusy.c_str(), 0);
    sockaddr_un const address = AddressOf(m_folder, m_files.strNew);
    return ::bind(m_listener.Get(), Generic(address), sizeof address) == 0 &&
           ::listen(m_listener.Get(), SOMAXCONN) == 0 &&
           ::renameat(m_folder.Get(), m_files.strNew.c_str(), m_folder.Get(), m_files.strSocket.c_str()) == 0;
}

} // namespace kvx::win32
