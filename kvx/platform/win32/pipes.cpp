#include "kvx/platform/win32/pipes.h"

#include "kvx/platform/BlockedCalls.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/fileobject.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/runtime_dir.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/unique_fd.h"
#include "kvx/platform/win32/upcase.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// The kernel moves no more than this in one call.
constexpr std::size_t MaxTransfer = 0x7FFFF000;

/// What OVERLAPPED::Internal holds while a call is pending; else it holds the call's error code.
constexpr ULONG_PTR Pending = 0x103;

constexpr DWORD DefaultWait = 50; // milliseconds

BOOL Refuse(DWORD dwError)
{
    SetLastError(dwError);
    return FALSE;
}

// Names

constexpr bool IsSeparator(char16_t c)
{
    return c == u'\\' || c == u'/';
}

struct PipePath
{
    std::u16string_view machine;
    std::u16string_view name;
};

/// The parts of `\\machine\pipe\name`; none for any other path.
std::optional<PipePath> SplitPipePath(std::u16string_view path) noexcept
{
    if (path.size() < 2 || !IsSeparator(path[0]) || !IsSeparator(path[1]))
    {
        return std::nullopt;
    }
    path.remove_prefix(2);
    std::size_t const nMachine = path.find_first_of(u"\\/");
    if (nMachine == path.npos || nMachine == 0)
    {
        return std::nullopt;
    }
    constexpr std::u16string_view Folder = u"pipe";
    std::u16string_view const rest = path.substr(nMachine + 1);
    if (!IsSameName(rest.substr(0, Folder.size()), Folder) || rest.size() <= Folder.size() ||
        !IsSeparator(rest[Folder.size()]))
    {
        return std::nullopt;
    }
    return PipePath{path.substr(0, nMachine), rest.substr(Folder.size() + 1)};
}

bool IsThisMachine(std::u16string_view name)
{
    if (name == u".")
    {
        return true;
    }
    char szHost[256] = "";
    gethostname(szHost, sizeof szHost - 1);
    std::string_view const host(szHost);
    return IsSameName(name, std::u16string(host.begin(), host.end()));
}

/// The file that stands for a name: "pipe." and the name, with letters of ASCII in lower case, digits, "-", "_" and "."
/// as they are, and the UTF-8 bytes of all else, upper case, as %XX. A long one is cut and gets a hash of the whole.
std::string MakeFileName(std::u16string_view name)
{
    constexpr std::size_t Longest = 64;
    constexpr std::size_t Readable = 47;
    constexpr char Digits[] = "0123456789ABCDEF";
    std::string strFile;
    for (std::size_t n = 0; n < name.size(); ++n)
    {
        char32_t c = name[n] == u'/' ? u'\\' : UpCase(name[n]);
        if (IsHighSurrogate(name[n]) && n + 1 < name.size() && IsLowSurrogate(name[n + 1]))
        {
            c = JoinSurrogates(name[n], name[n + 1]), ++n;
        }
        if (c >= U'A' && c <= U'Z')
        {
            strFile += static_cast<char>(c - U'A' + U'a');
        }
        else if ((c >= U'0' && c <= U'9') || c == U'-' || c == U'_' || c == U'.')
        {
            strFile += static_cast<char>(c);
        }
        else
        {
            char bytes[4];
            for (char const cByte : std::string_view(bytes, EncodeUtf8Char(c, bytes)))
            {
                auto const nByte = static_cast<unsigned char>(cByte);
                strFile += {'%', Digits[nByte >> 4], Digits[nByte & 0xF]};
            }
        }
    }
    if (strFile.size() > Longest)
    {
        std::uint64_t nHash = 0xCBF29CE484222325;
        for (char const c : strFile)
        {
            nHash = (nHash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
        }
        strFile.resize(Readable);
        strFile += '~';
        for (int nShift = 60; nShift >= 0; nShift -= 4)
        {
            strFile += Digits[nHash >> nShift & 0xF];
        }
    }
    return "pipe." + strFile;
}

/// The file of a local pipe's path; empty with last error for anything else.
std::string FileOfPipe(LPCWSTR pszPath)
{
    constexpr std::size_t LongestPath = 256;
    std::u16string_view const path(pszPath ? pszPath : u"");
    std::optional<PipePath> const parts = SplitPipePath(path);
    if (!parts || parts->name.empty())
    {
        SetLastError(ERROR_INVALID_NAME);
    }
    else if (path.size() > LongestPath)
    {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
    }
    else if (!IsThisMachine(parts->machine))
    {
        SetLastError(ERROR_BAD_NETPATH);
    }
    else
    {
        return MakeFileName(parts->name);
    }
    return {};
}

/// The files of one process that serves a name. The "+" occurs in no name.
struct SlotFiles
{
    SlotFiles(std::string const & strFile, int nSlot)
        : strSocket(nSlot == 0 ? strFile : strFile + '+' + std::to_string(nSlot)), strLock(strSocket + "+lock"),
          strBusy(strSocket + "+busy"), strNew(strSocket + "+new")
    {
    }

    std::string strSocket; ///< there while an instance is free
    std::string strLock;   ///< locked while the process lives and has instances
    std::string strBusy;   ///< the socket while no instance is free
    std::string strNew;    ///< the socket before it listens
};

/// An address by way of the opened folder: paths of sockets are short, those of folders needn't be.
sockaddr_un AddressOf(UniqueFd const & folder, std::string const & strFile)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.Get(), strFile.c_str());
    return address;
}

sockaddr const * Generic(sockaddr_un const & address)
{
    return reinterpret_cast<sockaddr const *>(&address);
}

flock WholeFile()
{
    flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool IsServed(UniqueFd const & folder, SlotFiles const & files)
{
    UniqueFd const file(::openat(folder.Get(), files.strLock.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    flock lock = WholeFile();
    return file && ::fcntl(file.Get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool IsThere(UniqueFd const & folder, std::string const & strFile)
{
    return ::faccessat(folder.Get(), strFile.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

enum class NameState
{
    Missing,
    Busy,
    Free
};

NameState LookForPipe(UniqueFd const & folder, std::string const & strFile)
{
    NameState state = NameState::Missing;
    for (int nSlot = 0; nSlot < MaxPipeServers; ++nSlot)
    {
        SlotFiles const files(strFile, nSlot);
        if (!IsServed(folder, files))
        {
            continue;
        }
        if (IsThere(folder, files.strSocket))
        {
            return NameState::Free;
        }
        state = NameState::Busy;
    }
    return state;
}

// The server's side of a name

constinit FutexMutex g_pipesLock;

/// What the instances of one name in this process share: the listening socket, and the lock that tells the living from
/// the dead. The socket's descriptor is closed with the last instance that could wait for it, everything else by Leave.
/// All members but GetListener are called under the lock of all pipes.
class PipeServer
{
public:
    /// The server of a name with one more instance, a free one; null with last error.
    static std::shared_ptr<PipeServer> Join(std::string const & strFile, DWORD dwAccess, DWORD nMaxInstances)
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
            auto const server =
                std::make_shared<PipeServer>(std::move(key), std::move(folder), dwAccess, nMaxInstances);
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
        ++server.m_nInstances;
        server.AddFree();
        return it->second;
    }

    using Key = std::tuple<dev_t, ino_t, std::string>;

    PipeServer(Key key, UniqueFd folder, DWORD dwAccess, DWORD nMaxInstances)
        : m_key(std::move(key)), m_folder(std::move(folder)), m_dwAccess(dwAccess), m_nMaxInstances(nMaxInstances),
          m_files(std::get<2>(m_key), 0)
    {
    }

    int GetListener() const { return m_listener.Get(); }

    void AddFree()
    {
        if (m_nFree++ == 0)
        {
            ::renameat(m_folder.Get(), m_files.strBusy.c_str(), m_folder.Get(), m_files.strSocket.c_str());
        }
    }

    void TakeFree()
    {
        if (--m_nFree == 0)
        {
            ::renameat(m_folder.Get(), m_files.strSocket.c_str(), m_folder.Get(), m_files.strBusy.c_str());
        }
    }

    void Leave()
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

private:
    static std::map<Key, std::shared_ptr<PipeServer>> & GetAll()
    {
        static auto & all = *new std::map<Key, std::shared_ptr<PipeServer>>; // outlives handles closed at the end
        return all;
    }

    enum class Slot
    {
        Taken,
        Living,
        Failed
    };

    bool Open()
    {
        for (int nSlot = 0; nSlot < MaxPipeServers; ++nSlot)
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

    /// Locks the slot's file. A process that leaves removes its file, so the locked one must still be the one that is
    /// there.
    Slot TakeSlot()
    {
        for (;;)
        {
            m_lock = UniqueFd(::openat(m_folder.Get(), m_files.strLock.c_str(),
                                       O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
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

    /// The socket gets its name when it listens, and takes the place of one that a dead process left behind.
    bool Listen()
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

// Ends

class PipeEnd : public IoObject
{
public:
    static constexpr bool Matches(Kind kind) noexcept { return kind == Kind::Pipe; }

    PipeEnd(bool bRead, bool bWrite) noexcept : IoObject(Kind::Pipe), m_bRead(bRead), m_bWrite(bWrite) {}

    /// As the calls of the same name.
    virtual BOOL Peek(void * pBuffer, DWORD nSize, DWORD & nRead, DWORD * pnAvailable) = 0;
    virtual BOOL Connect(OVERLAPPED *) { return Refuse(ERROR_BAD_PIPE); }
    virtual BOOL FinishConnect(OVERLAPPED &, bool) { return Refuse(ERROR_BAD_PIPE); }
    virtual BOOL Disconnect() { return Refuse(ERROR_INVALID_FUNCTION); }
    /// Ends the calls at work on this end and those to come.
    virtual void EndCalls() noexcept { OnHandleClosed(); }

    BOOL Read(void * pBuffer, DWORD nBytes, DWORD & nRead, OVERLAPPED * pOverlapped) override
    {
        if (!m_bRead)
        {
            return Refuse(ERROR_ACCESS_DENIED);
        }
        bool const bDone = nBytes == 0 || Receive(pBuffer, nBytes, nRead); // before the count is handed on
        return Finish(bDone, nRead, pOverlapped);
    }

    BOOL Write(void const * pBuffer, DWORD nBytes, DWORD & nWritten, OVERLAPPED * pOverlapped) override
    {
        if (!m_bWrite)
        {
            return Refuse(ERROR_ACCESS_DENIED);
        }
        bool const bDone = nBytes == 0 || Send(pBuffer, nBytes, nWritten);
        return Finish(bDone, nWritten, pOverlapped);
    }

    /// What was written stays readable for the peer, also behind the end of the connection: nothing is to be waited
    /// for.
    BOOL Flush() override { return m_bWrite ? TRUE : Refuse(ERROR_ACCESS_DENIED); }
    DWORD GetType() const override { return FILE_TYPE_PIPE; }

protected:
    virtual BOOL Receive(void * pBuffer, DWORD nBytes, DWORD & nRead) = 0;
    virtual BOOL Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten) = 0;

    bool CanRead() const { return m_bRead; }

private:
    static BOOL Finish(BOOL bDone, DWORD nTransferred, OVERLAPPED * pOverlapped)
    {
        if (pOverlapped)
        {
            pOverlapped->Internal = bDone ? ERROR_SUCCESS : GetLastError();
            pOverlapped->InternalHigh = nTransferred;
            if (pOverlapped->hEvent && bDone)
            {
                SetEvent(pOverlapped->hEvent);
            }
        }
        return bDone;
    }

    bool const m_bRead;
    bool const m_bWrite;
};

/// An end of a named pipe: the client's, and what the server's has in common with it. The number of the descriptor
/// stays this object's own from the first connection on, so that no call can meet somebody else's.
class SocketEnd : public PipeEnd
{
public:
    SocketEnd(UniqueFd socket, bool bRead, bool bWrite) noexcept
        : PipeEnd(bRead, bWrite), m_nDescriptor(socket.Detach()),
          m_state(m_nDescriptor.load(std::memory_order_relaxed) < 0 ? State::Free : State::Connected)
    {
    }
    ~SocketEnd() override { UniqueFd(m_nDescriptor.load()).Reset(); }

    void OnHandleClosed() noexcept override { End(State::Closed); }

    BOOL Peek(void * pBuffer, DWORD nSize, DWORD & nRead, DWORD * pnAvailable) override
    {
        if (!CanRead())
        {
            return Refuse(ERROR_ACCESS_DENIED);
        }
        if (!IsConnected())
        {
            return Refuse(m_state.load() == State::Free ? ERROR_BAD_PIPE : GetStateError());
        }
        int const nDescriptor = m_nDescriptor.load(std::memory_order_relaxed);
        char cFirst;
        bool const bCopies = pBuffer && nSize > 0;
        ssize_t const nGot = Retry(
            [&]
            { return ::recv(nDescriptor, bCopies ? pBuffer : &cFirst, bCopies ? nSize : 1, MSG_PEEK | MSG_DONTWAIT); });
        if (nGot == 0 || (nGot < 0 && errno != EAGAIN))
        {
            return Refuse(IsConnected() ? ERROR_BROKEN_PIPE : GetStateError());
        }
        nRead = bCopies && nGot > 0 ? static_cast<DWORD>(nGot) : 0;
        if (pnAvailable)
        {
            int nAvailable = 0;
            *pnAvailable = ::ioctl(nDescriptor, FIONREAD, &nAvailable) == 0 ? static_cast<DWORD>(nAvailable) : 0;
        }
        return TRUE;
    }

protected:
    enum class State
    {
        Free, ///< waits, or could wait, for a client
        Connected,
        Disconnected,
        Closed
    };

    bool IsConnected() const { return m_state.load(std::memory_order_acquire) == State::Connected; }

    DWORD GetStateError() const
    {
        switch (m_state.load())
        {
        case State::Free:
            return ERROR_PIPE_LISTENING;
        case State::Closed:
            return ERROR_OPERATION_ABORTED;
        default:
            return ERROR_PIPE_NOT_CONNECTED;
        }
    }

    /// The state comes first: whoever is woken by the shutdown, or begins a transfer after it, sees it.
    void End(State state) noexcept
    {
        m_state.store(state, std::memory_order_seq_cst);
        if (int const nDescriptor = m_nDescriptor.load(std::memory_order_seq_cst); nDescriptor >= 0)
        {
            ::shutdown(nDescriptor, SHUT_RDWR);
        }
    }

    BOOL Receive(void * pBuffer, DWORD nBytes, DWORD & nRead) override
    {
        if (!IsConnected())
        {
            return Refuse(GetStateError());
        }
        ssize_t const nGot =
            Retry([&] { return ::recv(m_nDescriptor.load(std::memory_order_relaxed), pBuffer, nBytes, 0); });
        if (nGot > 0) [[likely]]
        {
            nRead = static_cast<DWORD>(nGot);
            return TRUE;
        }
        if (!IsConnected())
        {
            return Refuse(GetStateError());
        }
        return Refuse(nGot == 0 ? static_cast<DWORD>(ERROR_BROKEN_PIPE) : ErrorFromErrno(errno));
    }

    BOOL Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten) override
    {
        while (nWritten < nBytes)
        {
            if (!IsConnected())
            {
                return Refuse(GetStateError());
            }
            ssize_t const nSent = Retry(
                [&]
                {
                    return ::send(m_nDescriptor.load(std::memory_order_relaxed),
                                  static_cast<char const *>(pBuffer) + nWritten, nBytes - nWritten, MSG_NOSIGNAL);
                });
            if (nSent < 0)
            {
                return Refuse(!IsConnected()                          ? GetStateError()
                              : errno == EPIPE || errno == ECONNRESET ? static_cast<DWORD>(ERROR_NO_DATA)
                                                                      : ErrorFromErrno(errno));
            }
            nWritten += static_cast<DWORD>(nSent);
        }
        return TRUE;
    }

    std::atomic<int> m_nDescriptor;
    std::atomic<State> m_state;
};

/// The server's end. Its state changes under the lock of all pipes, as the numbers of the server do.
class PipeInstance final : public SocketEnd
{
public:
    PipeInstance(std::shared_ptr<PipeServer> server, bool bRead, bool bWrite, bool bOverlapped) noexcept
        : SocketEnd({}, bRead, bWrite), m_bOverlapped(bOverlapped), m_server(std::move(server))
    {
    }

    void OnHandleClosed() noexcept override
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        Abandon(State::Closed);
        m_server->Leave();
    }

    void EndCalls() noexcept override
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        Abandon(State::Closed);
    }

    BOOL Disconnect() override
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        switch (m_state.load())
        {
        case State::Closed:
            return Refuse(ERROR_INVALID_HANDLE);
        case State::Disconnected:
            return Refuse(ERROR_PIPE_NOT_CONNECTED);
        default:
            Abandon(State::Disconnected);
            return TRUE;
        }
    }

    BOOL Connect(OVERLAPPED * pOverlapped) override
    {
        {
            UninterruptedScope const scope;
            FutexGuard const guard(g_pipesLock);
            State const state = m_state.load();
            if (state == State::Connected || state == State::Closed)
            {
                return Refuse(state == State::Connected ? ERROR_PIPE_CONNECTED : ERROR_INVALID_HANDLE);
            }
            if (!m_wake)
            {
                m_wake = std::make_shared<UniqueFd>(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            }
            if (!*m_wake)
            {
                m_wake.reset();
                SetLastErrorFromErrno();
                return FALSE;
            }
            if (state == State::Disconnected)
            {
                m_state.store(State::Free);
                m_server->AddFree();
            }
        }
        if (AcceptClient(false))
        {
            return Refuse(ERROR_PIPE_CONNECTED);
        }
        if (GetLastError() != ERROR_IO_INCOMPLETE)
        {
            return FALSE;
        }
        if (!pOverlapped || !m_bOverlapped)
        {
            return AcceptClient(true);
        }
        pOverlapped->Internal = Pending;
        pOverlapped->InternalHigh = 0;
        if (pOverlapped->hEvent)
        {
            ResetEvent(pOverlapped->hEvent);
        }
        return Refuse(ERROR_IO_PENDING);
    }

    BOOL FinishConnect(OVERLAPPED & overlapped, bool bWait) override
    {
        BOOL const bDone = AcceptClient(bWait);
        if (!bDone && GetLastError() == ERROR_IO_INCOMPLETE)
        {
            return FALSE;
        }
        overlapped.Internal = bDone ? ERROR_SUCCESS : GetLastError();
        if (overlapped.hEvent)
        {
            SetEvent(overlapped.hEvent);
        }
        return bDone;
    }

private:
    /// Ends the waiting or the connection, for good or until the next Connect. Under the lock.
    void Abandon(State state) noexcept
    {
        bool const bWasFree = m_state.load() == State::Free;
        End(state);
        if (bWasFree)
        {
            m_server->TakeFree();
        }
        if (m_wake)
        {
            ::eventfd_write(m_wake->Get(), 1);
        }
        m_wake.reset();
    }

    /// Takes a client out of the queue. ERROR_IO_INCOMPLETE if there is none and it isn't to wait,
    /// ERROR_OPERATION_ABORTED when the instance was disconnected or closed.
    BOOL AcceptClient(bool bWait)
    {
        constexpr int ShortOfDescriptors = 20; // milliseconds until the next try: that want passes
        std::shared_ptr<UniqueFd> wake;
        {
            UninterruptedScope const scope;
            FutexGuard const guard(g_pipesLock);
            wake = m_wake;
        }
        while (wake && m_state.load() == State::Free)
        {
            UniqueFd client(::accept4(m_server->GetListener(), nullptr, nullptr, SOCK_CLOEXEC));
            if (client)
            {
                return Establish(std::move(client));
            }
            bool const bShort = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            if (errno == EINTR || errno == ECONNABORTED)
            {
                continue;
            }
            if (errno != EAGAIN && !bShort)
            {
                SetLastErrorFromErrno();
                return FALSE;
            }
            if (!bWait)
            {
                return Refuse(ERROR_IO_INCOMPLETE);
            }
            pollfd polled[] = {{wake->Get(), POLLIN, 0}, {m_server->GetListener(), POLLIN, 0}};
            ::poll(polled, bShort ? 1 : 2, bShort ? ShortOfDescriptors : -1);
        }
        return Refuse(ERROR_OPERATION_ABORTED);
    }

    BOOL Establish(UniqueFd client)
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        if (m_state.load() != State::Free)
        {
            return Refuse(ERROR_OPERATION_ABORTED);
        }
        int const nDescriptor = m_nDescriptor.load();
        if (nDescriptor < 0)
        {
            m_nDescriptor.store(client.Detach());
        }
        else if (::dup3(client.Get(), nDescriptor, O_CLOEXEC) < 0)
        {
            SetLastErrorFromErrno();
            return FALSE;
        }
        m_state.store(State::Connected, std::memory_order_seq_cst);
        m_wake.reset();
        m_server->TakeFree();
        return TRUE;
    }

    bool const m_bOverlapped;
    std::shared_ptr<PipeServer> const m_server;
    std::shared_ptr<UniqueFd> m_wake; // while the instance waits; who sleeps on it shares it
};

/// Keeps SIGPIPE from this thread while it writes to a pipe.
class PipeSignalGuard
{
public:
    PipeSignalGuard()
    {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }

    ~PipeSignalGuard()
    {
        int const nError = errno;
        timespec const now{};
        if (m_bRaised && !sigismember(&m_before, SIGPIPE))
        {
            Retry([&] { return sigtimedwait(&m_pipe, nullptr, &now); });
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = nError;
    }

    PipeSignalGuard(PipeSignalGuard const &) = delete;
    PipeSignalGuard & operator=(PipeSignalGuard const &) = delete;

    void Raised() { m_bRaised = true; }

private:
    sigset_t m_pipe;
    sigset_t m_before;
    bool m_bRaised = false;
};

/// An end of an anonymous pipe. Its descriptor doesn't block, and belongs to this process alone: another process that
/// duplicates the end opens it anew. A blocked call sleeps on an event beside it, which closing sets.
class FifoEnd final : public PipeEnd
{
public:
    FifoEnd(UniqueFd fifo, bool bRead) noexcept : PipeEnd(bRead, !bRead), m_fifo(std::move(fifo)) {}
    ~FifoEnd() override { UniqueFd(m_nWake.load()).Reset(); }

    void OnHandleClosed() noexcept override
    {
        m_bClosed.store(true, std::memory_order_seq_cst);
        if (int const nWake = m_nWake.load(std::memory_order_seq_cst); nWake >= 0)
        {
            ::eventfd_write(nWake, 1);
        }
    }

    BOOL Peek(void * pBuffer, DWORD nSize, DWORD & nRead, DWORD * pnAvailable) override
    {
        if (!CanRead())
        {
            return Refuse(ERROR_ACCESS_DENIED);
        }
        if (pBuffer && nSize > 0)
        {
            return Refuse(ERROR_NOT_SUPPORTED);
        }
        nRead = 0;
        pollfd polled = {m_fifo.Get(), POLLIN, 0};
        int nAvailable = 0;
        if (::poll(&polled, 1, 0) < 0 || ::ioctl(m_fifo.Get(), FIONREAD, &nAvailable) != 0)
        {
            SetLastErrorFromErrno();
            return FALSE;
        }
        if (nAvailable == 0 && (polled.revents & POLLHUP) != 0)
        {
            return Refuse(ERROR_BROKEN_PIPE);
        }
        if (pnAvailable)
        {
            *pnAvailable = static_cast<DWORD>(nAvailable);
        }
        return TRUE;
    }

private:
    BOOL Receive(void * pBuffer, DWORD nBytes, DWORD & nRead) override
    {
        for (;;)
        {
            ssize_t const nGot = ::read(m_fifo.Get(), pBuffer, std::min<std::size_t>(nBytes, MaxTransfer));
            if (m_bClosed.load(std::memory_order_seq_cst))
            {
                return Refuse(ERROR_OPERATION_ABORTED);
            }
            if (nGot >= 0)
            {
                nRead = static_cast<DWORD>(nGot);
                return nGot > 0 ? TRUE : Refuse(ERROR_BROKEN_PIPE);
            }
            if (!WaitFor(POLLIN))
            {
                return FALSE;
            }
        }
    }

    BOOL Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten) override
    {
        PipeSignalGuard guard;
        while (nWritten < nBytes)
        {
            if (m_bClosed.load(std::memory_order_seq_cst))
            {
                return Refuse(ERROR_OPERATION_ABORTED);
            }
            ssize_t const nSent = ::write(m_fifo.Get(), static_cast<char const *>(pBuffer) + nWritten,
                                          std::min<std::size_t>(nBytes - nWritten, MaxTransfer));
            if (nSent > 0)
            {
                nWritten += static_cast<DWORD>(nSent);
            }
            else if (errno == EPIPE)
            {
                guard.Raised();
                return Refuse(ERROR_NO_DATA);
            }
            else if (!WaitFor(POLLOUT))
            {
                return FALSE;
            }
        }
        return TRUE;
    }

    /// Sleeps after a call that would have blocked. False with last error from errno, or ERROR_OPERATION_ABORTED.
    BOOL WaitFor(short nEvents)
    {
        if (errno == EINTR)
        {
            return TRUE;
        }
        if (errno != EAGAIN)
        {
            SetLastErrorFromErrno();
            return FALSE;
        }
        int nWake = m_nWake.load();
        if (nWake < 0)
        {
            UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            if (!wake)
            {
                SetLastErrorFromErrno();
                return FALSE;
            }
            if (m_nWake.compare_exchange_strong(nWake, wake.Get(), std::memory_order_seq_cst))
            {
                nWake = wake.Detach();
            }
        }
        pollfd polled[] = {{m_fifo.Get(), nEvents, 0}, {nWake, POLLIN, 0}};
        // A close before this look has set the flag; one after it finds the event.
        if (!m_bClosed.load(std::memory_order_seq_cst))
        {
            ::poll(polled, 2, -1);
        }
        return m_bClosed.load(std::memory_order_seq_cst) ? Refuse(ERROR_OPERATION_ABORTED) : TRUE;
    }

    UniqueFd const m_fifo;
    std::atomic<int> m_nWake{-1};
    std::atomic<bool> m_bClosed{false};
};

/// The name that the file of an anonymous pipe last had: it tells other processes which handles are its ends.
std::string FifoName(int nProcess, HANDLE hRead, HANDLE hWrite)
{
    char szName[64];
    std::snprintf(szName, sizeof szName, "anonymous.%d.%zu.%zu", nProcess, reinterpret_cast<std::size_t>(hRead),
                  reinterpret_cast<std::size_t>(hWrite));
    return szName;
}

struct FifoHandles
{
    std::size_t nRead;
    std::size_t nWrite;
};

/// The handles in a link of /proc, which is FifoName's path with " (deleted)" behind it.
std::optional<FifoHandles> ParseFifoLink(std::string_view link, int nProcess)
{
    std::string const strHead = "/anonymous." + std::to_string(nProcess) + '.';
    std::size_t const nHead = link.rfind(strHead);
    if (nHead == link.npos)
    {
        return std::nullopt;
    }
    char const * const pEnd = link.data() + link.size();
    FifoHandles handles{};
    auto const read = std::from_chars(link.data() + nHead + strHead.size(), pEnd, handles.nRead);
    if (read.ec != std::errc() || read.ptr == pEnd || *read.ptr != '.')
    {
        return std::nullopt;
    }
    auto const write = std::from_chars(read.ptr + 1, pEnd, handles.nWrite);
    return write.ec == std::errc() ? std::optional(handles) : std::nullopt;
}

/// Whether a descriptor of another process was opened for this access: its link alone doesn't tell the ends apart.
bool HasAccess(int nInfoFolder, char const * pszDescriptor, int nAccess)
{
    UniqueFd const file(::openat(nInfoFolder, pszDescriptor, O_RDONLY | O_CLOEXEC));
    char text[256];
    ssize_t const nGot = file ? ::read(file.Get(), text, sizeof text) : -1;
    std::string_view const info(text, nGot > 0 ? static_cast<std::size_t>(nGot) : 0);
    constexpr std::string_view Label = "flags:\t";
    std::size_t const nLabel = info.find(Label);
    unsigned nFlags = 0;
    return nLabel != info.npos &&
           std::from_chars(info.data() + nLabel + Label.size(), info.data() + info.size(), nFlags, 8).ec ==
               std::errc() &&
           static_cast<int>(nFlags & O_ACCMODE) == nAccess;
}

/// Connects to a process that serves the name. Null with last error.
UniqueFd ConnectToServer(UniqueFd const & folder, std::string const & strFile)
{
    constexpr timeval Patience = {0, 200000};
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
    {
        SetLastErrorFromErrno();
        return {};
    }
    for (int nSlot = 0; nSlot < MaxPipeServers; ++nSlot)
    {
        SlotFiles const files(strFile, nSlot);
        sockaddr_un const address = AddressOf(folder, files.strSocket);
        int nResult = Retry([&] { return ::connect(socket.Get(), Generic(address), sizeof address); });
        bool const bQueueFull = nResult != 0 && errno == EAGAIN;
        if (nResult == 0 || bQueueFull)
        {
            ::fcntl(socket.Get(), F_SETFL, 0);
        }
        if (bQueueFull)
        {
            // Thousands wait already: a place may come free.
            constexpr timeval None{};
            ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &Patience, sizeof Patience);
            nResult = Retry([&] { return ::connect(socket.Get(), Generic(address), sizeof address); });
            int const nError = errno;
            ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &None, sizeof None);
            errno = nError;
        }
        if (nResult == 0)
        {
            return socket;
        }
        // ENOENT: nobody, or nobody free. ECONNREFUSED: a dead one's.
        if (errno == EAGAIN)
        {
            SetLastError(ERROR_PIPE_BUSY);
            return {};
        }
        if (errno != ENOENT && errno != ECONNREFUSED)
        {
            SetLastErrorFromErrno();
            return {};
        }
    }
    SetLastError(LookForPipe(folder, strFile) == NameState::Missing ? ERROR_FILE_NOT_FOUND : ERROR_PIPE_BUSY);
    return {};
}

Ref<PipeEnd> FindPipe(HANDLE hPipe)
{
    if (Ref<PipeEnd> pipe = FindObject<PipeEnd>(hPipe))
    {
        return pipe;
    }
    SetLastError(FindObject<KernelObject>(hPipe) ? ERROR_BAD_PIPE : ERROR_INVALID_HANDLE);
    return nullptr;
}

} // namespace

bool IsPipePath(LPCWSTR pszPath) noexcept
{
    return pszPath && IsSeparator(pszPath[0]) && IsSeparator(pszPath[1]) && SplitPipePath(pszPath).has_value();
}

HANDLE OpenNamedPipe(LPCWSTR pszPath, DWORD dwAccess, DWORD dwDisposition)
{
    bool const bRead = dwAccess & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA);
    bool const bWrite = dwAccess & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA);
    if ((!bRead && !bWrite) || (dwDisposition != OPEN_EXISTING && dwDisposition != OPEN_ALWAYS))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::string const strFile = FileOfPipe(pszPath);
    UniqueFd const folder = strFile.empty() ? UniqueFd() : OpenRuntimeFolder();
    UniqueFd socket = folder ? ConnectToServer(folder, strFile) : UniqueFd();
    if (!socket)
    {
        return nullptr;
    }
    return OpenHandle(Ref<KernelObject>(new SocketEnd(std::move(socket), bRead, bWrite)));
}

Ref<KernelObject> OpenForeignPipe(int nProcess, HANDLE hForeign)
{
    std::string const strProcess = "/proc/" + std::to_string(nProcess);
    struct Closer
    {
        void operator()(DIR * pFolder) const { ::closedir(pFolder); }
    };
    UniqueFd opened(::open((strProcess + "/fd").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::unique_ptr<DIR, Closer> const folder(opened ? ::fdopendir(opened.Get()) : nullptr);
    if (folder)
    {
        opened.Detach();
    }
    else
    {
        SetLastError(errno == ENOENT ? static_cast<DWORD>(ERROR_INVALID_HANDLE) : ErrorFromErrno(errno));
        return nullptr;
    }
    UniqueFd const info(::open((strProcess + "/fdinfo").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int const nFolder = dirfd(folder.get());
    auto const nForeign = reinterpret_cast<std::size_t>(hForeign);
    while (dirent const * const pEntry = ::readdir(folder.get()))
    {
        char link[4096];
        ssize_t const nLink = ::readlinkat(nFolder, pEntry->d_name, link, sizeof link);
        if (nLink <= 0)
        {
            continue;
        }
        auto const handles = ParseFifoLink({link, static_cast<std::size_t>(nLink)}, nProcess);
        if (!handles || (handles->nRead != nForeign && handles->nWrite != nForeign))
        {
            continue;
        }
        bool const bRead = handles->nRead == nForeign;
        if (!HasAccess(info.Get(), pEntry->d_name, bRead ? O_RDONLY : O_WRONLY))
        {
            continue;
        }
        UniqueFd fifo(::openat(nFolder, pEntry->d_name, (bRead ? O_RDONLY : O_WRONLY) | O_NONBLOCK | O_CLOEXEC));
        if (fifo)
        {
            return Ref<KernelObject>(new FifoEnd(std::move(fifo), bRead));
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

} // namespace kvx::win32

void kvx::EndPipeCalls(HANDLE hPipe)
{
    if (auto const pipe = win32::FindPipe(hPipe))
    {
        pipe->EndCalls();
    }
}

using namespace kvx::win32;

HANDLE CreateNamedPipeW(LPCWSTR pszName, DWORD dwOpenMode, DWORD dwPipeMode, DWORD nMaxInstances, DWORD, DWORD, DWORD,
                        LPSECURITY_ATTRIBUTES)
{
    DWORD const dwAccess = dwOpenMode & PIPE_ACCESS_DUPLEX;
    bool const bOverlapped = dwOpenMode & FILE_FLAG_OVERLAPPED;
    if (dwAccess == 0 || (dwOpenMode & ~(PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED)) != 0 || nMaxInstances == 0 ||
        nMaxInstances > PIPE_UNLIMITED_INSTANCES)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (dwPipeMode != 0)
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return INVALID_HANDLE_VALUE;
    }
    UninterruptedScope const scope;
    std::string const strFile = FileOfPipe(pszName);
    if (strFile.empty())
    {
        if (GetLastError() == ERROR_BAD_NETPATH)
        {
            SetLastError(ERROR_INVALID_NAME); // instances are local
        }
        return INVALID_HANDLE_VALUE;
    }
    std::shared_ptr<PipeServer> server;
    {
        FutexGuard const guard(g_pipesLock);
        server = PipeServer::Join(strFile, dwAccess, nMaxInstances);
    }
    if (!server)
    {
        return INVALID_HANDLE_VALUE;
    }
    Ref<PipeInstance> const instance(new PipeInstance(std::move(server), dwAccess & PIPE_ACCESS_INBOUND,
                                                      dwAccess & PIPE_ACCESS_OUTBOUND, bOverlapped));
    HANDLE const hPipe = OpenHandle(instance);
    if (!hPipe)
    {
        instance->OnHandleClosed();
        return INVALID_HANDLE_VALUE;
    }
    return hPipe;
}

BOOL ConnectNamedPipe(HANDLE hPipe, LPOVERLAPPED pOverlapped)
{
    Ref<PipeEnd> const pipe = FindPipe(hPipe);
    return pipe ? pipe->Connect(pOverlapped) : FALSE;
}

BOOL DisconnectNamedPipe(HANDLE hPipe)
{
    Ref<PipeEnd> const pipe = FindPipe(hPipe);
    return pipe ? pipe->Disconnect() : FALSE;
}

BOOL WaitNamedPipeW(LPCWSTR pszName, DWORD nTimeOut)
{
    constexpr DWORD LookAgain = 5; // milliseconds
    std::string const strFile = FileOfPipe(pszName);
    if (strFile.empty())
    {
        return FALSE;
    }
    UniqueFd const folder = OpenRuntimeFolder();
    if (!folder)
    {
        return FALSE;
    }
    Deadline const deadline = MakeDeadline(nTimeOut == NMPWAIT_USE_DEFAULT_WAIT ? DefaultWait : nTimeOut);
    for (;;)
    {
        switch (LookForPipe(folder, strFile))
        {
        case NameState::Free:
            return TRUE;
        case NameState::Missing:
            return Refuse(ERROR_FILE_NOT_FOUND);
        case NameState::Busy:
            break;
        }
        if (GetMonotonicTime() >= deadline)
        {
            return Refuse(ERROR_SEM_TIMEOUT);
        }
        ::poll(nullptr, 0, LookAgain);
    }
}

BOOL PeekNamedPipe(HANDLE hPipe, LPVOID pBuffer, DWORD nSize, LPDWORD pnRead, LPDWORD pnAvailable,
                   LPDWORD pnLeftInMessage)
{
    Ref<PipeEnd> const pipe = FindPipe(hPipe);
    DWORD nRead = 0;
    if (!pipe || !pipe->Peek(pBuffer, nSize, nRead, pnAvailable))
    {
        return FALSE;
    }
    if (pnRead)
    {
        *pnRead = nRead;
    }
    if (pnLeftInMessage)
    {
        *pnLeftInMessage = 0;
    }
    return TRUE;
}

BOOL CreatePipe(HANDLE * phRead, HANDLE * phWrite, LPSECURITY_ATTRIBUTES, DWORD nSize)
{
    static constinit std::atomic<unsigned> s_nPipes{0};
    if (!phRead || !phWrite)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    UninterruptedScope const scope;
    UniqueFd const folder = OpenRuntimeFolder();
    if (!folder)
    {
        return FALSE;
    }
    // The file has a name for as long as it takes to open both ends and to give it its last one.
    std::string strName = "anonymous." + std::to_string(::getpid()) + ".new." + std::to_string(s_nPipes++);
    ::unlinkat(folder.Get(), strName.c_str(), 0); // a dead process's, which had the same number
    if (::mkfifoat(folder.Get(), strName.c_str(), S_IRUSR | S_IWUSR) != 0)
    {
        SetLastErrorFromErrno();
        return FALSE;
    }
    constexpr int Flags = O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW;
    UniqueFd read(::openat(folder.Get(), strName.c_str(), O_RDONLY | Flags));
    UniqueFd write(read ? ::openat(folder.Get(), strName.c_str(), O_WRONLY | Flags) : -1);
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    if (!write)
    {
        SetLastErrorFromErrno();
    }
    else
    {
        if (nSize > 65536)
        {
            ::fcntl(write.Get(), F_SETPIPE_SZ, static_cast<int>(std::min<DWORD>(nSize, 1 << 30)));
        }
        hRead = OpenHandle(Ref<KernelObject>(new FifoEnd(std::move(read), true)));
        hWrite = hRead ? OpenHandle(Ref<KernelObject>(new FifoEnd(std::move(write), false))) : nullptr;
    }
    if (hWrite)
    {
        std::string const strLast = FifoName(::getpid(), hRead, hWrite);
        if (::renameat(folder.Get(), strName.c_str(), folder.Get(), strLast.c_str()) == 0)
        {
            strName = strLast;
        }
    }
    ::unlinkat(folder.Get(), strName.c_str(), 0);
    if (!hWrite)
    {
        if (hRead)
        {
            CloseObject(hRead);
        }
        return FALSE;
    }
    *phRead = hRead;
    *phWrite = hWrite;
    return TRUE;
}

BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED pOverlapped, LPDWORD pnTransferred, BOOL bWait)
{
    if (!pOverlapped)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (pOverlapped->Internal == Pending)
    {
        Ref<PipeEnd> const pipe = FindPipe(hFile);
        if (!pipe || !pipe->FinishConnect(*pOverlapped, bWait != FALSE))
        {
            return FALSE;
        }
    }
    if (pnTransferred)
    {
        *pnTransferred = static_cast<DWORD>(pOverlapped->InternalHigh);
    }
    return pOverlapped->Internal == ERROR_SUCCESS ? TRUE : Refuse(static_cast<DWORD>(pOverlapped->Internal));
}
