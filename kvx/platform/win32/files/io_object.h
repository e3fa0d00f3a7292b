#pragma once

/// What files, pipes and consoles have in common.

#include "kvx/platform/win32/handles.h"

namespace kvx::win32
{

/// What ReadFile, WriteFile and kin work on. Every object of a kind that Matches accepts derives from it.
class IoObject : public KernelObject
{
public:
    static constexpr bool Matches(Kind kind) noexcept { return kind == Kind::File || kind == Kind::Pipe; }

    /// These work as the calls of the same name, with the last error set on failure.
    virtual BOOL Read(void * pBuffer, DWORD nBytes, DWORD & nRead, OVERLAPPED * pOverlapped) = 0;
    virtual BOOL Write(void const * pBuffer, DWORD nBytes, DWORD & nWritten, OVERLAPPED * pOverlapped) = 0;
    virtual BOOL Flush() = 0;
    virtual DWORD GetType() const = 0;

protected:
    using KernelObject::KernelObject;
};

} // namespace kvx::win32
