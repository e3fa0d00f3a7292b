#include "Interpose.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <new>

#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <iconv.h>
#include <linux/futex.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{
using faults::Call;

// Each kind of call, and what it fails with. Of functions that have several names in the C library all count as one.
#define KVX_CALLS(CALL)                                                                                                \
    CALL(Memory, "memory", ENOMEM)                                                                                     \
    CALL(Map, "mmap", ENOMEM)                                                                                          \
    CALL(Thread, "thread", EAGAIN)                                                                                     \
    CALL(Open, "open", EMFILE)                                                                                         \
    CALL(Fopen, "fopen", EMFILE)                                                                                       \
    CALL(OpenFolder, "fdopendir", ENOMEM)                                                                              \
    CALL(Duplicate, "dup", EMFILE)                                                                                     \
    CALL(Pipe, "pipe", EMFILE)                                                                                         \
    CALL(Eventfd, "eventfd", EMFILE)                                                                                   \
    CALL(Inotify, "inotify", EMFILE)                                                                                   \
    CALL(Socket, "socket", EMFILE)                                                                                     \
    CALL(Bind, "bind", EADDRINUSE)                                                                                     \
    CALL(Listen, "listen", EADDRINUSE)                                                                                 \
    CALL(Connect, "connect", ECONNREFUSED)                                                                             \
    CALL(Accept, "accept", EMFILE)                                                                                     \
    CALL(AcceptAborted, "accept-aborted", ECONNABORTED)                                                                \
    CALL(Send, "send", ECONNRESET)                                                                                     \
    CALL(SendShort, "send-short", 0)                                                                                   \
    CALL(SendFull, "send-full", EAGAIN)                                                                                \
    CALL(Receive, "recv", ECONNRESET)                                                                                  \
    CALL(ReceiveShort, "recv-short", 0)                                                                                \
    CALL(ReceiveEmpty, "recv-empty", EAGAIN)                                                                           \
    CALL(Poll, "poll", ENOMEM)                                                                                         \
    CALL(PollInterrupted, "poll-interrupted", EINTR)                                                                   \
    CALL(SetOption, "setsockopt", ENOBUFS)                                                                             \
    CALL(GetOption, "getsockopt", ENOBUFS)                                                                             \
    CALL(SocketName, "getsockname", ENOBUFS)                                                                           \
    CALL(Resolve, "getaddrinfo", EAI_MEMORY)                                                                           \
    CALL(Read, "read", EIO)                                                                                            \
    CALL(ReadShort, "read-short", 0)                                                                                   \
    CALL(Write, "write", ENOSPC)                                                                                       \
    CALL(WriteShort, "write-short", 0)                                                                                 \
    CALL(Copy, "copy_file_range", EIO)                                                                                 \
    CALL(Synchronise, "fsync", EIO)                                                                                    \
    CALL(Truncate, "ftruncate", ENOSPC)                                                                                \
    CALL(Allocate, "fallocate", ENOSPC)                                                                                \
    CALL(Rename, "rename", ENOSPC)                                                                                     \
    CALL(Link, "link", ENOSPC)                                                                                         \
    CALL(MakeFolder, "mkdir", ENOSPC)                                                                                  \
    CALL(MakeFile, "mkostemp", ENOSPC)                                                                                 \
    CALL(Remove, "unlink", EIO)                                                                                        \
    CALL(Status, "stat", EIO)                                                                                          \
    CALL(Mode, "chmod", EPERM)                                                                                         \
    CALL(Times, "futimens", EPERM)                                                                                     \
    CALL(Lock, "flock", ENOLCK)                                                                                        \
    CALL(Seek, "lseek", EIO)                                                                                           \
    CALL(Control, "fcntl", ENOLCK)                                                                                     \
    CALL(FutexWait, "futex", EINTR)                                                                                    \
    CALL(FutexWaitAny, "futex_waitv", ENOSYS)                                                                          \
    CALL(ProcessFile, "pidfd_open", EMFILE)                                                                            \
    CALL(Key, "pthread_key_create", EAGAIN)                                                                            \
    CALL(Load, "dlopen", ENOMEM)                                                                                       \
    CALL(Conversion, "iconv_open", EMFILE)                                                                             \
    CALL(Random, "getrandom", ENOSYS)

#define KVX_NUMBER(ID, NAME, ERROR) ID,
#define KVX_NAME(ID, NAME, ERROR) NAME,
#define KVX_ERROR(ID, NAME, ERROR) ERROR,
enum Id : Call
{
    KVX_CALLS(KVX_NUMBER)
};
constexpr std::array NAMES{KVX_CALLS(KVX_NAME)};
constexpr std::array ERRORS{KVX_CALLS(KVX_ERROR)};

constinit std::atomic<bool> g_bArmed{false};
constinit std::atomic<bool> g_bFailed{false};
constinit std::atomic<Call> g_chosen{0};
constinit std::atomic<unsigned long> g_nNumber{0};
constinit std::atomic<bool> g_bShow{false};
constinit std::array<std::atomic<unsigned long>, NAMES.size()> g_counts{};

/// Above 0 while the C library is at something whose failure it takes for the end of the program.
thread_local constinit int g_nSpared = 0;

void Show()
{
    std::array<void *, 40> stack;
    backtrace_symbols_fd(stack.data(), backtrace(stack.data(), static_cast<int>(stack.size())), STDERR_FILENO);
}

/// Counts the call. Whether it is to fail; its error is then set.
bool Fails(Call call)
{
    if (!g_bArmed.load(std::memory_order_relaxed) || g_nSpared > 0)
    {
        return false;
    }
    unsigned long const nNumber = g_counts[call].fetch_add(1, std::memory_order_relaxed) + 1;
    if (call != g_chosen.load(std::memory_order_relaxed) || nNumber != g_nNumber.load(std::memory_order_relaxed))
    {
        return false;
    }
    g_bFailed = true;
    if (g_bShow)
    {
        ++g_nSpared;
        Show();
        --g_nSpared;
    }
    errno = ERRORS[call];
    return true;
}

/// The function that this one stands in front of: a sanitizer's, which ours has pushed aside, or the C library's.
template <class FUNCTION>
FUNCTION * Find(FUNCTION * sanitizers, char const * name)
{
    return sanitizers ? sanitizers : reinterpret_cast<FUNCTION *>(dlsym(RTLD_NEXT, name));
}

template <class T>
T FailsWith(T value)
{
    return value;
}
} // namespace

namespace faults
{
std::span<char const * const> GetCallNames()
{
    return NAMES;
}

void Arm(Call call, unsigned long nNumber, bool bShow)
{
    for (auto & count : g_counts)
    {
        count = 0;
    }
    g_chosen = call;
    g_nNumber = nNumber;
    g_bFailed = false;
    g_bShow = bShow;
    if (bShow)
    {
        std::array<void *, 1> warm; // the first stack of a program loads what it needs for that
        backtrace(warm.data(), 1);
    }
    g_bArmed = true;
}

bool Disarm()
{
    g_bArmed = false;
    return g_bFailed;
}

unsigned long GetCount(Call call)
{
    return g_counts[call];
}

Spared::Spared()
{
    ++g_nSpared;
}

Spared::~Spared()
{
    --g_nSpared;
}
} // namespace faults

// Names in the object file are the C library's; in C++ they are others, so that they don't clash with its headers.
#define KVX_INSTEAD_OF(NAME, RESULT, PARAMETERS)                                                                       \
    extern "C" [[gnu::weak]] RESULT __interceptor_##NAME PARAMETERS;                                                   \
    extern "C" RESULT KvxInsteadOf_##NAME PARAMETERS __asm__(#NAME);                                                   \
    extern "C" [[gnu::visibility("default")]] RESULT KvxInsteadOf_##NAME PARAMETERS

#define KVX_REAL(NAME) static auto * const real = Find(&__interceptor_##NAME, #NAME)

/// A function that fails in one way, by this value.
#define KVX_FAILING(ID, NAME, RESULT, FAILURE, PARAMETERS, ARGUMENTS)                                                  \
    KVX_INSTEAD_OF(NAME, RESULT, PARAMETERS)                                                                           \
    {                                                                                                                  \
        KVX_REAL(NAME);                                                                                                \
        return Fails(ID) ? FailsWith<RESULT>(FAILURE) : real ARGUMENTS;                                                \
    }

// Memory. The C library's own names for it need no look-up, which would need memory.
extern "C" void * __libc_malloc(std::size_t);
extern "C" void * __libc_calloc(std::size_t, std::size_t);
extern "C" void * __libc_realloc(void *, std::size_t);
extern "C" void * __libc_memalign(std::size_t, std::size_t);

KVX_INSTEAD_OF(malloc, void *, (std::size_t nBytes))
{
    if (Fails(Memory))
    {
        return nullptr;
    }
    return &__interceptor_malloc ? __interceptor_malloc(nBytes) : __libc_malloc(nBytes);
}

KVX_INSTEAD_OF(calloc, void *, (std::size_t nCount, std::size_t nBytes))
{
    if (Fails(Memory))
    {
        return nullptr;
    }
    return &__interceptor_calloc ? __interceptor_calloc(nCount, nBytes) : __libc_calloc(nCount, nBytes);
}

KVX_INSTEAD_OF(realloc, void *, (void * block, std::size_t nBytes))
{
    if (Fails(Memory))
    {
        return nullptr;
    }
    return &__interceptor_realloc ? __interceptor_realloc(block, nBytes) : __libc_realloc(block, nBytes);
}

KVX_INSTEAD_OF(aligned_alloc, void *, (std::size_t nAlignment, std::size_t nBytes))
{
    if (Fails(Memory))
    {
        return nullptr;
    }
    return &__interceptor_aligned_alloc ? __interceptor_aligned_alloc(nAlignment, nBytes)
                                        : __libc_memalign(nAlignment, nBytes);
}

KVX_INSTEAD_OF(posix_memalign, int, (void ** result, std::size_t nAlignment, std::size_t nBytes))
{
    if (Fails(Memory))
    {
        return ENOMEM;
    }
    if (&__interceptor_posix_memalign)
    {
        return __interceptor_posix_memalign(result, nAlignment, nBytes);
    }
    *result = __libc_memalign(nAlignment, nBytes);
    return *result ? 0 : ENOMEM;
}

// A sanitizer's operators go past malloc: these don't.
void * operator new(std::size_t nBytes)
{
    if (void * const block = std::malloc(nBytes ? nBytes : 1))
    {
        return block;
    }
    throw std::bad_alloc();
}
void * operator new(std::size_t nBytes, std::align_val_t alignment)
{
    auto const nAlignment = static_cast<std::size_t>(alignment);
    if (void * const block = std::aligned_alloc(nAlignment, (nBytes + nAlignment - 1) & ~(nAlignment - 1)))
    {
        return block;
    }
    throw std::bad_alloc();
}
void * operator new(std::size_t nBytes, std::nothrow_t const &) noexcept
{
    return std::malloc(nBytes ? nBytes : 1);
}
void * operator new[](std::size_t nBytes)
{
    return operator new(nBytes);
}
void * operator new[](std::size_t nBytes, std::align_val_t alignment)
{
    return operator new(nBytes, alignment);
}
void * operator new[](std::size_t nBytes, std::nothrow_t const &) noexcept
{
    return std::malloc(nBytes ? nBytes : 1);
}
void operator delete(void * block) noexcept
{
    std::free(block);
}
void operator delete(void * block, std::size_t) noexcept
{
    std::free(block);
}
void operator delete(void * block, std::align_val_t) noexcept
{
    std::free(block);
}
void operator delete(void * block, std::size_t, std::align_val_t) noexcept
{
    std::free(block);
}
void operator delete(void * block, std::nothrow_t const &) noexcept
{
    std::free(block);
}
void operator delete[](void * block) noexcept
{
    std::free(block);
}
void operator delete[](void * block, std::size_t) noexcept
{
    std::free(block);
}
void operator delete[](void * block, std::align_val_t) noexcept
{
    std::free(block);
}
void operator delete[](void * block, std::size_t, std::align_val_t) noexcept
{
    std::free(block);
}
void operator delete[](void * block, std::nothrow_t const &) noexcept
{
    std::free(block);
}

// The C library ends the program where it has no memory for the destructor of a thread's variable.
KVX_INSTEAD_OF(__cxa_thread_atexit_impl, int, (void (*destructor)(void *), void * object, void * module))
{
    KVX_REAL(__cxa_thread_atexit_impl);
    ++g_nSpared;
    int const result = real(destructor, object, module);
    --g_nSpared;
    return result;
}

// So does a sanitizer that can't ask about a new thread's stack.
KVX_INSTEAD_OF(pthread_getattr_np, int, (pthread_t thread, pthread_attr_t * attributes))
{
    KVX_REAL(pthread_getattr_np);
    ++g_nSpared;
    int const result = real(thread, attributes);
    --g_nSpared;
    return result;
}

KVX_FAILING(Map, mmap, void *, MAP_FAILED,
            (void * address, std::size_t nBytes, int protection, int flags, int file, off_t offset),
            (address, nBytes, protection, flags, file, offset))
KVX_FAILING(Map, mmap64, void *, MAP_FAILED,
            (void * address, std::size_t nBytes, int protection, int flags, int file, off_t offset),
            (address, nBytes, protection, flags, file, offset))
KVX_FAILING(Thread, pthread_create, int, EAGAIN,
            (pthread_t * thread, pthread_attr_t const * attributes, void * (*start)(void *), void * argument),
            (thread, attributes, start, argument))
KVX_FAILING(Key, pthread_key_create, int, EAGAIN, (pthread_key_t * key, void (*destructor)(void *)), (key, destructor))
KVX_FAILING(Load, dlopen, void *, nullptr, (char const * name, int flags), (name, flags))
KVX_FAILING(Conversion, iconv_open, iconv_t, (iconv_t)-1, (char const * to, char const * from), (to, from))
KVX_FAILING(Random, getrandom, ssize_t, -1, (void * buffer, std::size_t nBytes, unsigned flags),
            (buffer, nBytes, flags))

// Descriptors.
KVX_FAILING(Open, open, int, -1, (char const * name, int flags, mode_t mode), (name, flags, mode))
KVX_FAILING(Open, open64, int, -1, (char const * name, int flags, mode_t mode), (name, flags, mode))
KVX_FAILING(Open, openat, int, -1, (int folder, char const * name, int flags, mode_t mode), (folder, name, flags, mode))
KVX_FAILING(Fopen, fopen, FILE *, nullptr, (char const * name, char const * mode), (name, mode))
KVX_FAILING(OpenFolder, fdopendir, DIR *, nullptr, (int file), (file))
KVX_FAILING(Duplicate, dup3, int, -1, (int from, int to, int flags), (from, to, flags))
KVX_FAILING(Pipe, pipe2, int, -1, (int * ends, int flags), (ends, flags))
KVX_FAILING(Eventfd, eventfd, int, -1, (unsigned value, int flags), (value, flags))
KVX_FAILING(Inotify, inotify_init1, int, -1, (int flags), (flags))
KVX_FAILING(Inotify, inotify_add_watch, int, -1, (int file, char const * name, std::uint32_t mask), (file, name, mask))

KVX_INSTEAD_OF(fcntl, int, (int file, int command, void * argument))
{
    KVX_REAL(fcntl);
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC ? Fails(Duplicate)
                                                         : command != F_GETFL && command != F_SETFL && Fails(Control))
    {
        return -1;
    }
    return real(file, command, argument);
}

// SQLite's, for its locks. That it may not get them is part of its work; that a lock can't be given back is not, and
// leaves its connection useless until it is closed: the kernel has no reason to fail that.
KVX_INSTEAD_OF(fcntl64, int, (int file, int command, void * argument))
{
    KVX_REAL(fcntl64);
    bool const bUnlocks = (command == F_SETLK || command == F_SETLKW || command == F_OFD_SETLK) &&
                          static_cast<struct flock const *>(argument)->l_type == F_UNLCK;
    return !bUnlocks && Fails(Control) ? -1 : real(file, command, argument);
}

// Connections.
KVX_FAILING(Socket, socket, int, -1, (int domain, int type, int protocol), (domain, type, protocol))
KVX_FAILING(Bind, bind, int, -1, (int file, sockaddr const * address, socklen_t size), (file, address, size))
KVX_FAILING(Listen, listen, int, -1, (int file, int backlog), (file, backlog))
KVX_FAILING(Connect, connect, int, -1, (int file, sockaddr const * address, socklen_t size), (file, address, size))
KVX_FAILING(SetOption, setsockopt, int, -1, (int file, int level, int name, void const * value, socklen_t size),
            (file, level, name, value, size))
KVX_FAILING(GetOption, getsockopt, int, -1, (int file, int level, int name, void * value, socklen_t * size),
            (file, level, name, value, size))
KVX_FAILING(SocketName, getsockname, int, -1, (int file, sockaddr * address, socklen_t * size), (file, address, size))
KVX_FAILING(SocketName, getpeername, int, -1, (int file, sockaddr * address, socklen_t * size), (file, address, size))
KVX_FAILING(Resolve, getaddrinfo, int, EAI_MEMORY,
            (char const * name, char const * service, addrinfo const * hints, addrinfo ** result),
            (name, service, hints, result))

KVX_INSTEAD_OF(accept4, int, (int file, sockaddr * address, socklen_t * size, int flags))
{
    KVX_REAL(accept4);
    return Fails(Accept) || Fails(AcceptAborted) ? -1 : real(file, address, size, flags);
}

KVX_INSTEAD_OF(send, ssize_t, (int file, void const * data, std::size_t nBytes, int flags))
{
    KVX_REAL(send);
    if (Fails(Send) || ((flags & MSG_DONTWAIT) != 0 && Fails(SendFull)))
    {
        return -1;
    }
    return real(file, data, nBytes > 1 && Fails(SendShort) ? 1 : nBytes, flags);
}

KVX_INSTEAD_OF(recv, ssize_t, (int file, void * data, std::size_t nBytes, int flags))
{
    KVX_REAL(recv);
    if (Fails(Receive) || ((flags & MSG_DONTWAIT) != 0 && Fails(ReceiveEmpty)))
    {
        return -1;
    }
    return real(file, data, nBytes > 1 && Fails(ReceiveShort) ? 1 : nBytes, flags);
}

KVX_INSTEAD_OF(poll, int, (pollfd * files, nfds_t nFiles, int timeout))
{
    KVX_REAL(poll);
    return Fails(Poll) || Fails(PollInterrupted) ? -1 : real(files, nFiles, timeout);
}

KVX_INSTEAD_OF(ppoll, int, (pollfd * files, nfds_t nFiles, timespec const * timeout, sigset_t const * mask))
{
    KVX_REAL(ppoll);
    return Fails(Poll) || Fails(PollInterrupted) ? -1 : real(files, nFiles, timeout, mask);
}

// Files.
KVX_INSTEAD_OF(read, ssize_t, (int file, void * data, std::size_t nBytes))
{
    KVX_REAL(read);
    return Fails(Read) ? -1 : real(file, data, nBytes > 1 && Fails(ReadShort) ? 1 : nBytes);
}

KVX_INSTEAD_OF(write, ssize_t, (int file, void const * data, std::size_t nBytes))
{
    KVX_REAL(write);
    return Fails(Write) ? -1 : real(file, data, nBytes > 1 && Fails(WriteShort) ? 1 : nBytes);
}

#define KVX_READING_AT(NAME)                                                                                           \
    KVX_INSTEAD_OF(NAME, ssize_t, (int file, void * data, std::size_t nBytes, off_t offset))                           \
    {                                                                                                                  \
        KVX_REAL(NAME);                                                                                                \
        return Fails(Read) ? -1 : real(file, data, nBytes > 1 && Fails(ReadShort) ? 1 : nBytes, offset);               \
    }
KVX_READING_AT(pread)
KVX_READING_AT(pread64)

#define KVX_WRITING_AT(NAME)                                                                                           \
    KVX_INSTEAD_OF(NAME, ssize_t, (int file, void const * data, std::size_t nBytes, off_t offset))                     \
    {                                                                                                                  \
        KVX_REAL(NAME);                                                                                                \
        return Fails(Write) ? -1 : real(file, data, nBytes > 1 && Fails(WriteShort) ? 1 : nBytes, offset);             \
    }
KVX_WRITING_AT(pwrite)
KVX_WRITING_AT(pwrite64)

KVX_FAILING(Copy, copy_file_range, ssize_t, -1,
            (int from, off_t * fromOffset, int to, off_t * toOffset, std::size_t nBytes, unsigned flags),
            (from, fromOffset, to, toOffset, nBytes, flags))
KVX_FAILING(Synchronise, fsync, int, -1, (int file), (file))
KVX_FAILING(Synchronise, fdatasync, int, -1, (int file), (file))
KVX_FAILING(Truncate, ftruncate, int, -1, (int file, off_t size), (file, size))
KVX_FAILING(Truncate, ftruncate64, int, -1, (int file, off_t size), (file, size))
KVX_FAILING(Allocate, posix_fallocate, int, ENOSPC, (int file, off_t offset, off_t size), (file, offset, size))
KVX_FAILING(Rename, rename, int, -1, (char const * from, char const * to), (from, to))
KVX_FAILING(Rename, renameat, int, -1, (int fromFolder, char const * from, int toFolder, char const * to),
            (fromFolder, from, toFolder, to))
KVX_FAILING(Rename, renameat2, int, -1,
            (int fromFolder, char const * from, int toFolder, char const * to, unsigned flags),
            (fromFolder, from, toFolder, to, flags))
KVX_FAILING(Link, link, int, -1, (char const * from, char const * to), (from, to))
KVX_FAILING(MakeFolder, mkdir, int, -1, (char const * name, mode_t mode), (name, mode))
KVX_FAILING(MakeFolder, mkdirat, int, -1, (int folder, char const * name, mode_t mode), (folder, name, mode))
KVX_FAILING(MakeFile, mkostemp, int, -1, (char * name, int flags), (name, flags))
KVX_FAILING(MakeFile, mkfifoat, int, -1, (int folder, char const * name, mode_t mode), (folder, name, mode))
KVX_FAILING(Remove, unlink, int, -1, (char const * name), (name))
KVX_FAILING(Remove, unlinkat, int, -1, (int folder, char const * name, int flags), (folder, name, flags))
KVX_FAILING(Remove, rmdir, int, -1, (char const * name), (name))
KVX_FAILING(Status, stat, int, -1, (char const * name, struct stat * status), (name, status))
KVX_FAILING(Status, lstat, int, -1, (char const * name, struct stat * status), (name, status))
KVX_FAILING(Status, fstat, int, -1, (int file, struct stat * status), (file, status))
KVX_FAILING(Status, fstatat, int, -1, (int folder, char const * name, struct stat * status, int flags),
            (folder, name, status, flags))
KVX_FAILING(Mode, chmod, int, -1, (char const * name, mode_t mode), (name, mode))
KVX_FAILING(Mode, fchmod, int, -1, (int file, mode_t mode), (file, mode))
KVX_FAILING(Times, futimens, int, -1, (int file, timespec const * times), (file, times))
KVX_FAILING(Lock, flock, int, -1, (int file, int operation), (file, operation))
KVX_FAILING(Seek, lseek, off_t, -1, (int file, off_t offset, int whence), (file, offset, whence))

// Waits, which the platform layer asks of the kernel itself.
KVX_INSTEAD_OF(syscall, long, (long number, long a, long b, long c, long d, long e, long f))
{
    KVX_REAL(syscall);
    switch (number)
    {
    case SYS_futex:
        if ((b & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET && Fails(FutexWait))
        {
            return -1;
        }
        break;
    case SYS_futex_waitv:
        if (Fails(FutexWaitAny))
        {
            return -1;
        }
        break;
    case SYS_pidfd_open:
        if (Fails(ProcessFile))
        {
            return -1;
        }
        break;
    default:
        break;
    }
    return real(number, a, b, c, d, e, f);
}
