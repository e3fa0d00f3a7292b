#include "kvx/transport/MsgPipeConnection.h"

#include <utility>

namespace
{
/// The server's end of a named pipe was opened for overlapped use: a transfer that the system leaves pending is waited
/// for.
BOOL Complete(BOOL bDone, HANDLE pipe, OVERLAPPED & overlapped, DWORD & count)
{
    return bDone || (GetLastError() == ERROR_IO_PENDING && GetOverlappedResult(pipe, &overlapped, &count, TRUE));
}
} // namespace

void CMsgPipeConnection::GetHandles(void *& read, void *& write)
{
    read = m_hRead;
    write = m_hWrite;
}

void CMsgPipeConnection::SetHandles(HANDLE read, HANDLE write)
{
    ResetBuffers();
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

int CMsgPipeConnection::SendAll(void const * buffer, DWORD count, bool)
{
    HANDLE const pipe = m_hWrite;
    OVERLAPPED overlapped{};
    DWORD written = 0;
    return Complete(WriteFile(pipe, buffer, count, &written, &overlapped), pipe, overlapped, written) &&
           written == count;
}

DWORD CMsgPipeConnection::ReceiveSome(void * buffer, DWORD size)
{
    HANDLE const pipe = m_hRead;
    OVERLAPPED overlapped{};
    DWORD got = 0;
    return Complete(ReadFile(pipe, buffer, size, &got, &overlapped), pipe, overlapped, got) ? got : 0;
}
