#pragma once

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/OpenFlags.h"

#include <utility>

namespace kvx::cabinet
{
/// What ends an operation of the writing half. Thrown within the engine; CabCompression turns it into the ERF.
struct CabFailure
{
    FCIERROR error;
    int type = 0; ///< the callback's error number
};

/// The caller's callbacks, and what is passed to each of them.
struct CallbackHost
{
    CabCompression::Callbacks calls;
    void * context;
};

inline constexpr int OPEN_NEW_TEMPORARY = OPEN_BINARY | OPEN_CREATE | OPEN_EXCLUSIVE | OPEN_READ_WRITE;
inline constexpr int OPEN_NEW_CABINET = OPEN_BINARY | OPEN_CREATE | OPEN_TRUNCATE | OPEN_READ_WRITE;

/// Callbacks may write another name over the one that they are given, up to so many bytes.
inline constexpr std::size_t NAME_ROOM = 260;

/// A file behind callbacks. What fails throws a CabFailure with the error that this file's failures are told by.
class CallbackFile
{
public:
    CallbackFile(CallbackHost const & host, FCIERROR error) : m_host(host), m_error(error) {}
    CallbackFile(CallbackFile const &) = delete;
    CallbackFile & operator=(CallbackFile const &) = delete;
    /// Closes, and doesn't tell whether that went.
    ~CallbackFile();

    /// `name` has up to 511 bytes.
    void Open(char const * name, int flags);
    /// Takes over what a callback opened; -1 fails with `error`.
    void Adopt(INT_PTR handle, int error);
    /// The handle is the caller's from now on.
    INT_PTR Release() { return std::exchange(m_handle, -1); }
    bool IsOpen() const { return m_handle != -1; }
    /// Fewer bytes than `size`, and 0 at the end.
    UINT Read(void * to, UINT size);
    void ReadAll(void * to, UINT size);
    void Write(void const * from, UINT size);
    void Seek(LONG position);
    void Close();

private:
    CallbackHost const & m_host;
    FCIERROR m_error;
    INT_PTR m_handle = -1;
};
} // namespace kvx::cabinet
