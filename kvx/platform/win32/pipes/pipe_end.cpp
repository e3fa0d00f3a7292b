/// What the calls on pipes do for any end of one.

#include "kvx/platform/win32/pipes/pipe_end.h"

#include <new>

#include "kvx/platform/BlockedCalls.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/sync.h"

namespace kvx::win32
{

BOOL PipeEnd::Read(void * pBuffer, DWORD nBytes, DWORD & nRead, OVERLAPPED * pOverlapped)
{
    if (!m_bRead)
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    bool const bDone = nBytes == 0 || Receive(pBuffer, nBytes, nRead); // before the count is handed on
    return Finish(bDone, nRead, pOverlapped);
}

BOOL PipeEnd::Write(void const * pBuffer, DWORD nBytes, DWORD & nWritten, OVERLAPPED * pOverlapped)
{
    if (!m_bWrite)
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    bool const bDone = nBytes == 0 || Send(pBuffer, nBytes, nWritten);
    return Finish(bDone, nWritten, pOverlapped);
}

BOOL PipeEnd::Finish(BOOL bDone, DWORD nTransferred, OVERLAPPED * pOverlapped)
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

Ref<PipeEnd> FindPipe(HANDLE hPipe)
{
    if (Ref<PipeEnd> pipe = FindObject<PipeEnd>(hPipe))
    {
        return pipe;
    }
    SetLastError(FindObject<KernelObject>(hPipe) ? ERROR_BAD_PIPE : ERROR_INVALID_HANDLE);
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

BOOL ConnectNamedPipe(HANDLE hPipe, LPOVERLAPPED pOverlapped)
try
{
    Ref<PipeEnd> const pipe = FindPipe(hPipe);
    return pipe ? pipe->Connect(pOverlapped) : FALSE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL DisconnectNamedPipe(HANDLE hPipe)
{
    Ref<PipeEnd> const pipe = FindPipe(hPipe);
    return pipe ? pipe->Disconnect() : FALSE;
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

BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED pOverlapped, LPDWORD pnTransferred, BOOL bWait)
{
    if (!pOverlapped)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (pOverlapped->Internal == PENDING)
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
