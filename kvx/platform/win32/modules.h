#pragma once

/// Modules of the process: shared objects, the executable, and the resources in them. A module's handle is the address
/// at which it is loaded. All calls may come from any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using HRSRC = struct HRSRC__ *;
using HGLOBAL = void *;

inline constexpr DWORD LOAD_WITH_ALTERED_SEARCH_PATH = 0x00000008;

#define MAKEINTRESOURCEW(number) (reinterpret_cast<LPWSTR>(static_cast<ULONG_PTR>(static_cast<WORD>(number))))
#define IS_INTRESOURCE(name) (reinterpret_cast<ULONG_PTR>(name) >> 16 == 0)

/// Loads a shared object, or counts one more use of a loaded one. A name with a separator is a path (Windows-shaped or
/// POSIX); a bare one is looked for beside the program, then by the system's loader (LD_LIBRARY_PATH and the system's
/// folders). Each file is tried as `name` when it has an extension, then as `libname.so` and `name.so` with ".dll"
/// taken off; a dot at the end stands for "no extension". "kernel32", "advapi32" and "shfolder" are modules of this
/// layer that export what callers look up by name.
///
/// `dwFlags` is 0 or LOAD_WITH_ALTERED_SEARCH_PATH, which changes nothing here. Null with last error
/// ERROR_MOD_NOT_FOUND (no such file, or one that it needs is missing), ERROR_BAD_EXE_FORMAT (no module, or one for
/// another machine), ERROR_PROC_NOT_FOUND (a symbol that it needs is missing), ERROR_ACCESS_DENIED, or
/// ERROR_INVALID_PARAMETER (empty name, other flags, `hFile` not null).
KVX_API HMODULE LoadLibraryExW(LPCWSTR pszName, HANDLE hFile, DWORD dwFlags);

/// Takes one use back; the last one unloads the module. ERROR_MOD_NOT_FOUND for what LoadLibraryExW hasn't loaded. The
/// executable and this layer's own modules stay.
KVX_API BOOL FreeLibrary(HMODULE hModule);

/// The address of an exported function; a null handle is the executable. Only what the module itself exports is found,
/// not what it uses. Null with last error ERROR_PROC_NOT_FOUND (also for numbers in place of names), or
/// ERROR_MOD_NOT_FOUND for a handle that is no module's.
KVX_API FARPROC GetProcAddress(HMODULE hModule, LPCSTR pszName);

/// The handle of a module that is loaded already, by the name or path that LoadLibraryExW would take, or of the
/// executable (null, or its name), uncounted. Null with last error ERROR_MOD_NOT_FOUND.
KVX_API HMODULE GetModuleHandleW(LPCWSTR pszName);

/// Writes the Windows-shaped path of a module (null: the executable) and returns its length. A buffer too small gets
/// the head of the path, with a closing zero: the result is `nChars` then, and the last error
/// ERROR_INSUFFICIENT_BUFFER. 0 with last error ERROR_MOD_NOT_FOUND for a handle that is no module's.
KVX_API DWORD GetModuleFileNameW(HMODULE hModule, LPWSTR pszBuffer, DWORD nChars);

/// Resources come into a module by kvx_resources() of cmake/KvxResources.cmake. Names and types are compared without
/// regard to case; a number is the same as its text "#number". They carry no language: any language finds them. Null
/// with last error ERROR_RESOURCE_DATA_NOT_FOUND (the module has none), ERROR_RESOURCE_TYPE_NOT_FOUND,
/// ERROR_RESOURCE_NAME_NOT_FOUND or ERROR_INVALID_PARAMETER.
KVX_API HRSRC FindResourceExW(HMODULE hModule, LPCWSTR pszType, LPCWSTR pszName, WORD wLanguage);
KVX_API HRSRC FindResourceW(HMODULE hModule, LPCWSTR pszName, LPCWSTR pszType);
/// The resource's bytes, which live as long as its module; LockResource only hands them on. `hModule` isn't looked at.
KVX_API HGLOBAL LoadResource(HMODULE hModule, HRSRC hResource);
KVX_API LPVOID LockResource(HGLOBAL hData);
/// In bytes.
KVX_API DWORD SizeofResource(HMODULE hModule, HRSRC hResource);

namespace kvx::win32
{

struct Resource
{
    LPCWSTR pszType;
    LPCWSTR pszName;
    unsigned char const * pBegin;
    unsigned char const * pEnd;
};

/// The resources of one module: a static object that the CMake helper generates.
class KVX_API ResourceTable
{
public:
    ResourceTable(Resource const * pResources, std::size_t nResources) noexcept;
    ResourceTable(ResourceTable const &) = delete;
    ResourceTable & operator=(ResourceTable const &) = delete;
    ~ResourceTable();

private:
    friend struct ResourceTables;

    Resource const * m_pResources;
    std::size_t m_nResources;
    ResourceTable * m_pNext;
};

} // namespace kvx::win32
