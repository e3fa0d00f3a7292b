#include "kvx/platform/win32/console.h"

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files/file_object.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

constinit std::atomic<HANDLE> g_stdHandles[3];
constinit std::atomic<DebugOutputHook> g_pDebugHook{nullptr};

enum class DebugOutput
{
    Unknown,
    Off,
    On
};
constinit std::atomic<DebugOutput> g_debugOutput{DebugOutput::Unknown};

/// Whether the handle still is the one that stands for the descriptor.
bool IsStdHandle(HANDLE hFile, int nDescriptor)
{
    if (!hFile)
    {
        return false;
    }
    DWORD const dwError = GetLastError();
    Ref<File> const file = FindObject<File>(hFile);
    SetLastError(dwError);
    return file && file->GetDescriptor() == nDescriptor;
}

bool IsDebugOutputOn()
{
    DebugOutput output = g_debugOutput.load(std::memory_order_relaxed);
    if (output == DebugOutput::Unknown)
    {
        char const * const pszValue = std::getenv("KVX_DEBUG_OUTPUT");
        output = pszValue && *pszValue ? DebugOutput::On : DebugOutput::Off;
        g_debugOutput.store(output, std::memory_order_relaxed);
    }
    return output == DebugOutput::On;
}

} // namespace

HANDLE GetStdHandle(DWORD nStdHandle)
try
{
    DWORD const nDescriptor = STD_INPUT_HANDLE - nStdHandle;
    if (nDescriptor > 2)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_HANDLE_VALUE;
    }
    int const nFd = static_cast<int>(nDescriptor);
    std::atomic<HANDLE> & known = g_stdHandles[nDescriptor];
    HANDLE hBefore = known.load(std::memory_order_acquire);
    if (IsStdHandle(hBefore, nFd))
    {
        return hBefore;
    }
    int const nFlags = fcntl(nFd, F_GETFL);
    struct stat info;
    if (nFlags < 0 || (nFlags & O_PATH) != 0 || fstat(nFd, &info) != 0)
    {
        return nullptr; // closed, also if a LowDescriptorGuard keeps the number
    }
    int const nAccess = nFlags & O_ACCMODE;
    HANDLE const hNew = OpenHandle(Ref<File>(new File(nFd, nAccess != O_WRONLY, nAccess != O_RDONLY, info.st_mode)));
    if (!hNew || known.compare_exchange_strong(hBefore, hNew, std::memory_order_acq_rel))
    {
        return hNew;
    }
    CloseObject(hNew);
    return hBefore; // another thread was first
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HANDLE>(INVALID_HANDLE_VALUE);
}

BOOL AllocConsole()
try
{
    if (fcntl(STDOUT_FILENO, F_GETFD) >= 0)
    {
        return TRUE;
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL WriteConsoleW(HANDLE hConsole, LPCVOID pText, DWORD nChars, LPDWORD pnWritten, LPVOID pReserved)
try
{
    if (pnWritten)
    {
        *pnWritten = 0;
    }
    Ref<File> const file = FindObject<File>(hConsole);
    if (!file)
    {
        return FALSE;
    }
    if ((!pText && nChars > 0) || pReserved)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // Long texts go in pieces, so that a hostile length takes no memory.
    constexpr std::size_t PIECE = 16 * 1024;
    std::u16string_view const text(static_cast<LPCWSTR>(pText), nChars);
    for (std::size_t n = 0; n < text.size();)
    {
        std::size_t nUnits = std::min(PIECE, text.size() - n);
        if (n + nUnits < text.size() && IsHighSurrogate(text[n + nUnits - 1]))
        {
            --nUnits;
        }
        std::string const strBytes = ToUtf8(text.substr(n, nUnits));
        DWORD nBytes = 0;
        if (!file->Write(strBytes.data(), static_cast<DWORD>(strBytes.size()), nBytes, nullptr))
        {
            return FALSE;
        }
        n += nUnits;
        if (pnWritten)
        {
            *pnWritten = static_cast<DWORD>(n);
        }
    }
    return TRUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL GetConsoleMode(HANDLE hConsole, LPDWORD pdwMode)
{
    Ref<File> const file = FindObject<File>(hConsole);
    if (!file)
    {
        return FALSE;
    }
    if (!pdwMode || !isatty(file->GetDescriptor()))
    {
        SetLastError(pdwMode ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    constexpr DWORD INPUT_MODES = 7;  // processed, line, echo
    constexpr DWORD OUTPUT_MODES = 3; // processed, wrap at the line's end
    *pdwMode = file->CanWrite() && file->GetDescriptor() != STDIN_FILENO ? OUTPUT_MODES : INPUT_MODES;
    return TRUE;
}

void OutputDebugStringW(LPCWSTR pszText)
{
    if (!pszText)
    {
        return;
    }
    DWORD const dwError = GetLastError();
    if (DebugOutputHook const pHook = g_pDebugHook.load(std::memory_order_acquire))
    {
        pHook(pszText);
    }
    else if (IsDebugOutputOn())
    {
        DWORD nWritten = 0;
        std::string const strBytes = ToUtf8(pszText);
        if (Ref<File> const file = FindObject<File>(GetStdHandle(STD_ERROR_HANDLE)))
        {
            file->Write(strBytes.data(), static_cast<DWORD>(strBytes.size()), nWritten, nullptr);
        }
    }
    SetLastError(dwError);
}

namespace kvx::win32
{

DebugOutputHook SetDebugOutputHook(DebugOutputHook pHook)
{
    return g_pDebugHook.exchange(pHook, std::memory_order_acq_rel);
}

} // namespace kvx::win32
