#include "kvx/transport/MsgPipeConnection.h"

#include "kvx/platform/BlockedCalls.h"

#include <utility>

CMsgPipeConnection::~CMsgPipeConnection()
{
    CMsgPipeConnection::Disconnect();
    for (HANDLE const event : {m_hReadEvent, m_hWriteEvent})
    {
        if (event)
        {
            CloseHandle(event);
        }
    }
}

void CMsgPipeConnection::GetHandles(void *& read, void *& write)
{
    read = m_hRead;
    write = m_hWrite;
}

void CMsgPipeConnection::SetHandles(HANDLE read, HANDLE write, bool bOverlapped)
{
    ResetBuffers();
    m_bOverlapped = bOverlapped;
    CSingleLock guard(&m_handlesLock, TRUE);
    m_hRead = read;
    m_hWrite = write;
}

void CMsgPipeConnection::TakeHandles(HANDLE & read, HANDLE & write)
{
    CSingleLock guard(&m_handlesLock, TRUE);
    read = m_hRead.exchange(INVALID_HANDLE_VALUE);
    write = m_hWrite.exchange(INVALID_HANDLE_VALUE);
}

void CMsgPipeConnection::CloseHandles(HANDLE read, HANDLE write)
{
    if (read == INVALID_HANDLE_VALUE && write == INVALID_HANDLE_VALUE)
    {
        return;
    }
    bool const bFree = m_uses.End(
        [=]
        {
            for (HANDLE const pipe : {read, write})
            {
                if (pipe != INVALID_HANDLE_VALUE)
                {
                    kvx::EndPipeCalls(pipe);
                }
            }
        });
    if (!bFree)
    {
        return;
    }
    if (write != INVALID_HANDLE_VALUE && write != read)
    {
        CloseHandle(write);
    }
    if (read != INVALID_HANDLE_VALUE)
    {
        CloseHandle(read);
    }
}

void CMsgPipeConnection::SetInfo(CValueAccessor & info, LPCTSTR type, CString const & path)
{
    info.CreateValue(_T("type")) = type;
    info.CreateValue(_T("path")) = path;
}

int CMsgPipeConnection::IsConnected()
{
    CMsgHandleUses::Use const use(m_uses);
    HANDLE const read = m_hRead;
    return read != INVALID_HANDLE_VALUE && m_hWrite != INVALID_HANDLE_VALUE &&
           PeekNamedPipe(read, nullptr, 0, nullptr, nullptr, nullptr);
}

int CMsgPipeConnection::Disconnect()
{
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    TakeHandles(read, write);
    CloseHandles(read, write);
    return CMsgConnection::Disconnect();
}

int CMsgPipeConnection::AuthenticateClient(int bCompact)
{
    return bCompact ? 0 : CMsgBufferedConnection::AuthenticateClient(0);
}

/// A transfer by the call that is given, waited for where the system leaves it pending. Its event is its own: the
/// handle, which would do as well, is signalled by whatever else ends on it, and the system would write its result to
/// where this function was.
template <class CALL>
DWORD CMsgPipeConnection::Transfer(std::atomic<HANDLE> const & handle, HANDLE & event, CALL const & call)
{
    CMsgHandleUses::Use const use(m_uses);
    HANDLE const pipe = handle;
    DWORD count = 0;
    if (!m_bOverlapped)
    {
        return call(pipe, count, nullptr) ? count : 0;
    }
    if (!event)
    {
        event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    OVERLAPPED overlapped{};
    overlapped.hEvent = event;
    bool const bDone =
        event && (call(pipe, count, &overlapped) ||
                  (GetLastError() == ERROR_IO_PENDING && GetOverlappedResult(pipe, &overlapped, &count, TRUE)));
    return bDone ? count : 0;
}

int CMsgPipeConnection::SendAll(void const * buffer, DWORD count, bool)
{
    return Transfer(m_hWrite, m_hWriteEvent,
                    [=](HANDLE pipe, DWORD & done, OVERLAPPED * overlapped)
                    { return WriteFile(pipe, buffer, count, &done, overlapped); }) == count;
}

DWORD CMsgPipeConnection::ReceiveSome(void * buffer, DWORD size)
{
    return Transfer(m_hRead, m_hReadEvent,
                    [=](HANDLE pipe, DWORD & done, OVERLAPPED * overlapped)
                    { return ReadFile(pipe, buffer, size, &done, overlapped); });
}
