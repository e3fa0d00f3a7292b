#pragma once

#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/files/io_object.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/pipes.h"

namespace kvx::win32
{

/// What OVERLAPPED::Internal holds while a call is pending; else it holds the call's error code.
inline constexpr ULONG_PTR PENDING = 0x103;

/// An end of a pipe of either kind.
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

    BOOL Read(void * pBuffer, DWORD nBytes, DWORD & nRead, OVERLAPPED * pOverlapped) override;
    BOOL Write(void const * pBuffer, DWORD nBytes, DWORD & nWritten, OVERLAPPED * pOverlapped) override;

    /// What was written stays readable for the peer, also behind the end of the connection: nothing is to be waited
    /// for.
    BOOL Flush() override { return m_bWrite ? TRUE : Refuse(ERROR_ACCESS_DENIED); }
    DWORD GetType() const override { return FILE_TYPE_PIPE; }

protected:
    virtual BOOL Receive(void * pBuffer, DWORD nBytes, DWORD & nRead) = 0;
    virtual BOOL Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten) = 0;

    bool CanRead() const { return m_bRead; }

private:
    static BOOL Finish(BOOL bDone, DWORD nTransferred, OVERLAPPED * pOverlapped);

    bool const m_bRead;
    bool const m_bWrite;
};

/// Null with last error ERROR_BAD_PIPE for a handle of another kind, or ERROR_INVALID_HANDLE.
Ref<PipeEnd> FindPipe(HANDLE hPipe);

} // namespace kvx::win32
