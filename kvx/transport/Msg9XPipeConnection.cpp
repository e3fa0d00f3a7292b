#include "kvx/transport/Msg9XPipeConnection.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/registry/Registry.h"
#include "kvx/system/WinSecurity.h"
#include "kvx/transport/MsgPipeFactory.h"

#include <optional>
#include <utility>

namespace
{
constexpr int CONNECT_TRIES = 5;
constexpr DWORD CLIENT_PIPE_SIZE = 600000;
constexpr LPCTSTR REGISTRY_PATH = _T("Software\\QMRT\\System\\9XPipe\\%s");
constexpr LPCTSTR PROCESS_VALUE = _T("p");
constexpr LPCTSTR HANDLE_VALUE = _T("h");

/// What the two sides tell each other, in the host's order.
struct ConnectionRecord
{
    DWORD nProcess;
    DWORD nHandle; // in that process: the write end that the peer is to use
};
static_assert(sizeof(ConnectionRecord) == 8);

DWORD ToNumber(HANDLE handle)
{
    return static_cast<DWORD>(reinterpret_cast<UINT_PTR>(handle));
}

HANDLE ToHandle(DWORD number)
{
    return reinterpret_cast<HANDLE>(static_cast<UINT_PTR>(number));
}

/// Closes a handle at the end of its scope; neither null nor INVALID_HANDLE_VALUE is one.
class COwnedHandle
{
public:
    explicit COwnedHandle(HANDLE handle = nullptr) : m_handle(handle) {}
    COwnedHandle(COwnedHandle const &) = delete;
    COwnedHandle & operator=(COwnedHandle const &) = delete;
    ~COwnedHandle() { Close(); }

    explicit operator bool() const { return m_handle && m_handle != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return m_handle; }
    HANDLE Detach() { return std::exchange(m_handle, nullptr); }
    void Close()
    {
        HANDLE const handle = Detach();
        if (handle && handle != INVALID_HANDLE_VALUE)
        {
            CloseHandle(handle);
        }
    }

private:
    HANDLE m_handle;
};

class CPipeEnds
{
public:
    bool Create(DWORD size)
    {
        CWinSecurityAttributes attributes(1);
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        if (!CreatePipe(&read, &write, attributes, size))
        {
            return false;
        }
        m_read.emplace(read);
        m_write.emplace(write);
        return true;
    }
    COwnedHandle & Read() { return *m_read; }
    COwnedHandle & Write() { return *m_write; }

private:
    std::optional<COwnedHandle> m_read;
    std::optional<COwnedHandle> m_write;
};

/// A name that a mutex can have: what holds off too many names only makes their clients take turns.
CString MakeMutexName(CString name)
{
    constexpr int LONGEST = 200;
    name.Replace(_T('\\'), _T('/'));
    return name.Left(LONGEST);
}

HANDLE OpenPeer(DWORD process)
{
    return OpenProcess(SYNCHRONIZE, FALSE, process);
}

/// Waits until so many bytes can be read, for as long as the peer lives and `goesOn` says so. The peer could also die
/// while this process still holds an end that it was to have: the pipe alone wouldn't tell.
template <class GOESON>
bool AwaitBytes(HANDLE pipe, DWORD count, HANDLE process, GOESON && goesOn)
{
    constexpr int QUICK_LOOKS = 50;
    bool bDead = false;
    for (int i = 0;; ++i)
    {
        DWORD available = 0;
        if (!PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr))
        {
            return false;
        }
        if (available >= count)
        {
            return true;
        }
        if (bDead || !goesOn(i))
        {
            SetLastError(bDead ? ERROR_BROKEN_PIPE : ERROR_OPERATION_ABORTED);
            return false;
        }
        if (i < QUICK_LOOKS)
        {
            SwitchToThread();
        }
        else
        {
            bDead = WaitForSingleObject(process, 1) != WAIT_TIMEOUT;
        }
    }
}

bool WriteRecord(HANDLE pipe, HANDLE write)
{
    ConnectionRecord const record{GetCurrentProcessId(), ToNumber(write)};
    DWORD written = 0;
    return WriteFile(pipe, &record, sizeof(record), &written, nullptr) && written == sizeof(record);
}

bool ReadRecord(HANDLE pipe, ConnectionRecord & record)
{
    DWORD got = 0;
    return ReadFile(pipe, &record, sizeof(record), &got, nullptr) && got == sizeof(record);
}
} // namespace

HANDLE CUtilities::DuplicateHandle(DWORD processId, HANDLE handle)
{
    COwnedHandle const process(OpenProcess(PROCESS_DUP_HANDLE, FALSE, processId));
    HANDLE duplicate = nullptr;
    if (!process ||
        !::DuplicateHandle(process.Get(), handle, GetCurrentProcess(), &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS))
    {
        return INVALID_HANDLE_VALUE;
    }
    return duplicate;
}

CMsg9XPipeConnection::CMsg9XPipeConnection(CMsgPipeListener * listener, CString const & name)
    : CMsgPipeConnection(listener, 1), m_mutex(FALSE, MakeMutexName(name))
{
    m_strPath = name;
    m_strRegistryPath.Format(REGISTRY_PATH, name);
}

int CMsg9XPipeConnection::GetConnectionInfo(CValueAccessor & info)
{
    SetInfo(info, _T("9XPipe"), m_strPath);
    return 1;
}

bool CMsg9XPipeConnection::Query(Published & published) const
{
    CRegistry key;
    return key.OpenKey(HKEY_LOCAL_MACHINE, m_strRegistryPath, KEY_READ) == 0 &&
           key.QueryValue(PROCESS_VALUE, published.nProcess) == 0 &&
           key.QueryValue(HANDLE_VALUE, published.nHandle) == 0;
}

bool CMsg9XPipeConnection::IsMine(Published const & published) const
{
    return published == Published{GetCurrentProcessId(), m_nPublishedHandle};
}

int CMsg9XPipeConnection::Listen()
{
    CMsgPipeConnection::Disconnect();
    CSingleLock guard(&m_mutex, TRUE);
    CRegistry key;
    CPipeEnds pipe;
    // Without a name the key would be the one that holds those of all servers.
    LONG code = m_strPath.IsEmpty() ? LONG{ERROR_INVALID_NAME} : key.CreateKey(HKEY_LOCAL_MACHINE, m_strRegistryPath);
    bool const bPipe = pipe.Create(0);
    if (!bPipe)
    {
        code = static_cast<LONG>(GetLastError());
    }
    else if (code == ERROR_SUCCESS)
    {
        m_nPublishedHandle = ToNumber(pipe.Write().Get());
        m_bPublished = true;
        code = key.SetValue(PROCESS_VALUE, GetCurrentProcessId());
        code = code == ERROR_SUCCESS ? key.SetValue(HANDLE_VALUE, m_nPublishedHandle) : code;
    }
    if (GetListener())
    {
        GetListener()->ReportPublished(static_cast<DWORD>(code));
    }
    if (bPipe)
    {
        HANDLE const read = pipe.Read().Detach();
        SetHandles(read, pipe.Write().Detach());
    }
    return 1;
}

int CMsg9XPipeConnection::Disconnect()
{
    // The key goes with the pipe, once: it may be another server's by the next call.
    Published published;
    if (m_bPublished && m_hRead != INVALID_HANDLE_VALUE && (!Query(published) || IsMine(published)))
    {
        CRegistry key;
        LONG code = key.OpenKey(HKEY_LOCAL_MACHINE, m_strRegistryPath);
        code = code == ERROR_SUCCESS ? key.DeleteKey(nullptr, 1) : code;
        if (code != ERROR_SUCCESS)
        {
            LogSourceError(this, _T("%s"), CWinError::GetText(static_cast<DWORD>(code)));
        }
    }
    return CMsgPipeConnection::Disconnect();
}

/// The server may also withdraw without dying, with this client's record unread.
bool CMsg9XPipeConnection::AwaitServer(HANDLE pipe, Published const & published) const
{
    constexpr int LOOKS = 100;
    COwnedHandle const process(OpenPeer(published.nProcess));
    return process && AwaitBytes(pipe, sizeof(ConnectionRecord), process.Get(),
                                 [&](int i)
                                 {
                                     Published now;
                                     return i % LOOKS != LOOKS - 1 || (Query(now) && now == published);
                                 });
}

bool CMsg9XPipeConnection::AwaitClient(HANDLE pipe, HANDLE process) const
{
    return AwaitBytes(pipe, 1, process, [this](int) { return m_hRead != INVALID_HANDLE_VALUE; });
}

bool CMsg9XPipeConnection::TryConnect(HANDLE server, Published const & published)
{
    CPipeEnds pipe;
    if (!pipe.Create(CLIENT_PIPE_SIZE))
    {
        LogSourceError(this, _T("Create pipe: %s"), CWinError::GetLastErrorText());
        return false;
    }
    ConnectionRecord answer{};
    if (!WriteRecord(server, pipe.Write().Get()) || !AwaitServer(pipe.Read().Get(), published) ||
        !ReadRecord(pipe.Read().Get(), answer))
    {
        LogSourceError(this, _T("Write connection info: %s"), CWinError::GetLastErrorText());
        return false;
    }
    pipe.Write().Close();
    HANDLE const write = CUtilities::DuplicateHandle(answer.nProcess, ToHandle(answer.nHandle));
    SetHandles(pipe.Read().Detach(), write);
    BYTE const confirmation = 1;
    if (write != INVALID_HANDLE_VALUE && WriteData(&confirmation, sizeof(confirmation)) && FlushData())
    {
        return true;
    }
    LogSourceError(this, _T("Write confirmation: %s"), CWinError::GetLastErrorText());
    DWORD const lastError = GetLastError();
    CMsgPipeConnection::Disconnect();
    SetLastError(lastError);
    return false;
}

int CMsg9XPipeConnection::Connect()
{
    for (int i = 1; i <= CONNECT_TRIES; ++i)
    {
        CMsgPipeConnection::Disconnect();
        Published published;
        bool const bFound = Query(published);
        COwnedHandle const server(bFound ? CUtilities::DuplicateHandle(published.nProcess, ToHandle(published.nHandle))
                                         : INVALID_HANDLE_VALUE);
        if (!server)
        {
            if (!bFound)
            {
                SetLastError(ERROR_FILE_NOT_FOUND);
            }
            DWORD const lastError = GetLastError();
            LogSourceError(this, _T("Query server handle: Invalid server handle"));
            SetLastError(lastError);
            return 0;
        }
        CSingleLock guard(&m_mutex, TRUE);
        if (TryConnect(server.Get(), published))
        {
            return 1;
        }
        DWORD const lastError = GetLastError();
        LogSourceWarning(this, _T("Connect retry %d"), i);
        SetLastError(lastError);
    }
    return 0;
}

int CMsg9XPipeConnection::Accept(CMsgConnection * target)
{
    ConnectionRecord record{};
    if (!ReadData(&record, sizeof(record)) || record.nProcess == 0)
    {
        return 0;
    }
    COwnedHandle client(CUtilities::DuplicateHandle(record.nProcess, ToHandle(record.nHandle)));
    COwnedHandle const process(client ? OpenPeer(record.nProcess) : nullptr);
    CPipeEnds pipe;
    if (!client || !process || !pipe.Create(0))
    {
        return 0;
    }
    auto * const connection = static_cast<CMsg9XPipeConnection *>(target);
    connection->Disconnect();
    HANDLE const read = pipe.Read().Detach();
    connection->SetHandles(read, client.Detach());
    ConnectionRecord const answer{GetCurrentProcessId(), ToNumber(pipe.Write().Get())};
    BYTE confirmation = 0;
    if (connection->WriteData(&answer, sizeof(answer)) && connection->FlushData() && AwaitClient(read, process.Get()) &&
        connection->ReadData(&confirmation, sizeof(confirmation)))
    {
        return 1;
    }
    DWORD const lastError = GetLastError();
    connection->Disconnect();
    SetLastError(lastError);
    return 0;
}
