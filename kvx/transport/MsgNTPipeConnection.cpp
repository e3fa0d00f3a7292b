#include "kvx/transport/MsgNTPipeConnection.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Timeout.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/system/WinSecurity.h"
#include "kvx/transport/MsgPipeFactory.h"

#include <optional>
#include <utility>

namespace
{
constexpr int CONNECT_TRIES = 5;
constexpr DWORD CONNECT_WAIT = 10000; // milliseconds
constexpr DWORD TRY_TIME = 1000;      // milliseconds of losing instances to others
// With no buffers each write would wait for its reader, and two sides that write at the same time for each other.
constexpr DWORD BUFFER_SIZE = 65536;
constexpr DWORD ACCEPT_PAUSE = 20; // milliseconds

bool IsTransient(DWORD error)
{
    return error == ERROR_TOO_MANY_OPEN_FILES || error == ERROR_NOT_ENOUGH_MEMORY || error == ERROR_DISK_FULL ||
           error == ERROR_NO_SYSTEM_RESOURCES;
}

CString MakePath(CString const & name)
{
    CString machine;
    CString pipe;
    CString path;
    if (CUtilities::SplitString(name, machine, pipe, _T(":"), 0) >= 0)
    {
        path.Format(_T("\\\\%s\\pipe\\%s"), machine, pipe);
    }
    else
    {
        path.Format(_T("\\\\.\\pipe\\%s"), name);
    }
    return path;
}

/// Puts the label on a descriptor that lets clients of low integrity open the pipe. Without it, where there are no such
/// levels, the descriptor serves as it is.
class COwnedLabel
{
public:
    explicit COwnedLabel(SECURITY_DESCRIPTOR * descriptor)
    {
        BOOL bPresent = FALSE;
        BOOL bDefaulted = FALSE;
        PACL acl = nullptr;
        if (ConvertStringSecurityDescriptorToSecurityDescriptorW(_T("S:(ML;;NW;;;LW)"), SDDL_REVISION_1, &m_pLabel,
                                                                 nullptr) &&
            GetSecurityDescriptorSacl(m_pLabel, &bPresent, &acl, &bDefaulted) && bPresent)
        {
            SetSecurityDescriptorSacl(descriptor, TRUE, acl, FALSE);
        }
    }
    COwnedLabel(COwnedLabel const &) = delete;
    COwnedLabel & operator=(COwnedLabel const &) = delete;
    ~COwnedLabel()
    {
        if (m_pLabel)
        {
            LocalFree(m_pLabel);
        }
    }

private:
    PSECURITY_DESCRIPTOR m_pLabel = nullptr; // the descriptor refers to its list
};
} // namespace

CMsgNTPipeConnection::CMsgNTPipeConnection(CMsgPipeListener * listener, CString const & name, int unicode)
    : CMsgPipeConnection(listener, unicode)
{
    m_strPath = MakePath(name);
}

int CMsgNTPipeConnection::GetConnectionInfo(CValueAccessor & info)
{
    SetInfo(info, _T("NTPipe"), m_strPath);
    return 1;
}

int CMsgNTPipeConnection::Connect()
{
    Disconnect();
    CWinSecurityDescriptor descriptor;
    CWinSecurityAttributes attributes(0, descriptor);
    HANDLE pipe = INVALID_HANDLE_VALUE;
    for (int i = 1; i <= CONNECT_TRIES; ++i)
    {
        // Of many clients that wait at once one gets each instance: losing it is no reason to give up while the others
        // come through.
        kvx::Timeout const patience(TRY_TIME);
        while (WaitNamedPipeW(m_strPath, CONNECT_WAIT))
        {
            pipe = CreateFileW(m_strPath, GENERIC_READ | GENERIC_WRITE, 0, attributes, OPEN_EXISTING, 0, nullptr);
            if (pipe != INVALID_HANDLE_VALUE || GetLastError() != ERROR_PIPE_BUSY || patience.GetRest() == 0)
            {
                break;
            }
        }
        if (pipe != INVALID_HANDLE_VALUE || GetLastError() != ERROR_PIPE_BUSY)
        {
            break;
        }
        LogSourceWarning(this, _T("Connect retry %d"), i);
        SetLastError(ERROR_PIPE_BUSY);
    }
    if (pipe == INVALID_HANDLE_VALUE)
    {
        LogSourceError(this, _T("Connection: %s"), CWinError::GetLastErrorText());
        SetLastError(ERROR_NOT_CONNECTED);
        return 0;
    }
    SetHandles(pipe, pipe);
    return 1;
}

void CMsgNTPipeConnection::SignalInstance(DWORD error)
{
    if (GetListener())
    {
        GetListener()->SignalInstance(error);
    }
}

HANDLE CMsgNTPipeConnection::CreateInstance() const
{
    CWinSecurityDescriptor descriptor;
    COwnedLabel const label(descriptor);
    CWinSecurityAttributes attributes(0, descriptor);
    return CreateNamedPipeW(m_strPath, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, PIPE_UNLIMITED_INSTANCES,
                            BUFFER_SIZE, BUFFER_SIZE, 0, attributes);
}

bool CMsgNTPipeConnection::WaitForClient(HANDLE pipe)
{
    std::optional<CEvent> event;
    bool const bEvent = kvx::FailingWithoutMemory(
        [&]
        {
            event.emplace(FALSE, TRUE);
            return true;
        });
    if (!bEvent)
    {
        return false;
    }
    OVERLAPPED overlapped{};
    overlapped.hEvent = *event;
    if (ConnectNamedPipe(pipe, &overlapped))
    {
        return true;
    }
    DWORD transferred = 0;
    return GetLastError() == ERROR_PIPE_CONNECTED ||
           (GetLastError() == ERROR_IO_PENDING && GetOverlappedResult(pipe, &overlapped, &transferred, TRUE));
}

int CMsgNTPipeConnection::Listen()
{
    m_bDropped = false;
    m_bAccepts = false;
    return 1;
}

int CMsgNTPipeConnection::Accept(CMsgConnection * target)
{
    // Want of descriptors, memory or space passes, and is no reason to turn away everybody for ever. One that can't
    // even begin says so.
    while (!AcceptNext(target))
    {
        DWORD const error = GetLastError();
        if (m_bDropped || !m_bAccepts || !IsTransient(error))
        {
            SetLastError(error);
            return 0;
        }
        Sleep(ACCEPT_PAUSE);
    }
    return 1;
}

int CMsgNTPipeConnection::AcceptNext(CMsgConnection * target)
{
    HANDLE pipe = m_hNext.exchange(INVALID_HANDLE_VALUE);
    if (pipe == INVALID_HANDLE_VALUE)
    {
        pipe = CreateInstance();
    }
    if (pipe == INVALID_HANDLE_VALUE)
    {
        CWinError const failure;
        SignalInstance(failure.GetCode());
        LogSourceError(this, _T("CMsgNTPipeConnection::Accept - (%d) %s"), failure.GetCode(), failure.GetText());
        SetLastError(failure.GetCode());
        return 0;
    }
    m_bAccepts = true;
    SetHandles(pipe, pipe, true);
    SignalInstance(0);
    bool bConnected = false;
    {
        // A Disconnect that has come before the handle was there is noticed here; a later one ends the call.
        CMsgHandleUses::Use const use(m_uses);
        bConnected = !m_bDropped && WaitForClient(pipe);
    }
    DWORD const lastError = m_bDropped ? DWORD{ERROR_OPERATION_ABORTED} : GetLastError();
    HANDLE read = INVALID_HANDLE_VALUE;
    HANDLE write = INVALID_HANDLE_VALUE;
    if (bConnected && !m_bDropped)
    {
        m_hNext = CreateInstance(); // without one the next call says why
    }
    TakeHandles(read, write);
    if (!bConnected || read != pipe)
    {
        CloseHandles(read, write);
        if (m_bDropped)
        {
            DropNext(); // it may have been made behind the Disconnect
        }
        SetLastError(bConnected ? static_cast<DWORD>(ERROR_OPERATION_ABORTED) : lastError);
        return 0;
    }
    auto * const connection = static_cast<CMsgNTPipeConnection *>(target);
    connection->Disconnect();
    connection->SetHandles(pipe, pipe, true);
    return 1;
}

void CMsgNTPipeConnection::DropNext()
{
    HANDLE const next = m_hNext.exchange(INVALID_HANDLE_VALUE);
    if (next != INVALID_HANDLE_VALUE)
    {
        CloseHandle(next);
    }
}

int CMsgNTPipeConnection::Disconnect()
{
    m_bDropped = true;
    DropNext();
    if (m_hWrite == INVALID_HANDLE_VALUE)
    {
        return 1;
    }
    // Closing alone leaves to the client what was written to it. DisconnectNamedPipe would take that away, unless it
    // had waited before until the client has read it all, which is up to the client.
    return CMsgPipeConnection::Disconnect();
}
