#pragma once

/// The registry: a tree of keys with named, typed values, shared by the processes of a user.
///
/// It is a store on the disk, opened at the first use: KVX_REGISTRY, else registry.db in the folder "kvx" of the user's
/// data home, private to the user. What a call has reported as written outlives the process, however it ends. Writers
/// of all processes take their turns; a write waits for those before it and for nothing else, readers wait for nobody.
/// A file that isn't such a store is refused and never changed. Beside the store lie its helper files ("-wal", "-shm",
/// "-lock"), which belong to it.
///
/// Names are compared without regard to case and kept as first written. A key name has at most 255 characters, the name
/// of a value 16383, a value at most 1,000,000,000 bytes; keys nest 512 deep. Subkeys are enumerated in the order of
/// their names, values in the order in which they were made.
///
/// All calls return a code, 0 for success. Beside those told at each call:
///   6 ERROR_INVALID_HANDLE   a handle that isn't a key's, is closed, or is null
///   5 ERROR_ACCESS_DENIED    the handle wasn't opened for this; the store may not be read or written by this user
///   19 ERROR_WRITE_PROTECT   the store lies on a read-only medium
///   1018 ERROR_KEY_DELETED   the key behind the handle has been deleted
///   1009 ERROR_BADDB         the store is corrupt, or no store at all
///   1016 ERROR_REGISTRY_IO_FAILED, 112 ERROR_DISK_FULL, 8 ERROR_NOT_ENOUGH_MEMORY, 170 ERROR_BUSY
/// No call sets the last error to anything of use. Any thread, also several on one handle.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using HKEY = struct HKEY__ *;
using PHKEY = HKEY *;
using REGSAM = DWORD;
using LSTATUS = LONG;

/// Predefined keys need no opening, and closing them does nothing. HKEY_CLASSES_ROOT is
/// HKEY_LOCAL_MACHINE\SOFTWARE\Classes, HKEY_CURRENT_USER is HKEY_USERS\S-1-22-1-<uid>. HKEY_PERFORMANCE_DATA and
/// HKEY_DYN_DATA are refused with ERROR_NOT_SUPPORTED.
#define KVX_PREDEFINED_KEY(number) (reinterpret_cast<HKEY>(static_cast<LONG_PTR>(static_cast<LONG>(number))))
#define HKEY_CLASSES_ROOT KVX_PREDEFINED_KEY(0x80000000)
#define HKEY_CURRENT_USER KVX_PREDEFINED_KEY(0x80000001)
#define HKEY_LOCAL_MACHINE KVX_PREDEFINED_KEY(0x80000002)
#define HKEY_USERS KVX_PREDEFINED_KEY(0x80000003)
#define HKEY_PERFORMANCE_DATA KVX_PREDEFINED_KEY(0x80000004)
#define HKEY_CURRENT_CONFIG KVX_PREDEFINED_KEY(0x80000005)
#define HKEY_DYN_DATA KVX_PREDEFINED_KEY(0x80000006)

inline constexpr DWORD KEY_QUERY_VALUE = 0x0001;
inline constexpr DWORD KEY_SET_VALUE = 0x0002;
inline constexpr DWORD KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr DWORD KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr DWORD KEY_NOTIFY = 0x0010;
inline constexpr DWORD KEY_CREATE_LINK = 0x0020;
inline constexpr DWORD KEY_WOW64_64KEY = 0x0100; ///< the views share one tree: these bits change nothing
inline constexpr DWORD KEY_WOW64_32KEY = 0x0200;
inline constexpr DWORD KEY_READ = 0x20019;
inline constexpr DWORD KEY_EXECUTE = 0x20019;
inline constexpr DWORD KEY_WRITE = 0x20006;
inline constexpr DWORD KEY_ALL_ACCESS = 0xF003F;

inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_DWORD_BIG_ENDIAN = 5;
inline constexpr DWORD REG_LINK = 6;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_RESOURCE_LIST = 8;
inline constexpr DWORD REG_FULL_RESOURCE_DESCRIPTOR = 9;
inline constexpr DWORD REG_RESOURCE_REQUIREMENTS_LIST = 10;
inline constexpr DWORD REG_QWORD = 11;

/// Opens the key at a path below hKey; a null or empty path gives a second handle to the same key. On failure *phResult
/// is null. ERROR_FILE_NOT_FOUND; ERROR_BAD_PATHNAME for a path that begins with a backslash; ERROR_INVALID_PARAMETER
/// for a null phResult, a name that is too long, both KEY_WOW64_ bits, or options other than 0.
KVX_API LONG RegOpenKeyExW(HKEY hKey, LPCWSTR pszSubKey, DWORD dwOptions, REGSAM samDesired, PHKEY phResult) noexcept;

/// Opens the key, after making what is missing of its path. pdwDisposition may be null. The errors of RegOpenKeyExW;
/// also ERROR_INVALID_PARAMETER for a null path, reserved other than 0, or a path that is too deep, and
/// ERROR_NOT_SUPPORTED for a class or an option (volatile keys, links). Security attributes are not looked at.
KVX_API LONG RegCreateKeyExW(HKEY hKey, LPCWSTR pszSubKey, DWORD dwReserved, LPWSTR pszClass, DWORD dwOptions,
                             REGSAM samDesired, SECURITY_ATTRIBUTES const * pSecurity, PHKEY phResult,
                             DWORD * pdwDisposition) noexcept;

KVX_API LONG RegCloseKey(HKEY hKey) noexcept;

/// Deletes a key that has no subkeys, with its values; an empty path is hKey itself. ERROR_FILE_NOT_FOUND,
/// ERROR_ACCESS_DENIED for a key with subkeys or one that a predefined key stands for, ERROR_INVALID_PARAMETER for a
/// null path.
KVX_API LONG RegDeleteKeyW(HKEY hKey, LPCWSTR pszSubKey) noexcept;

/// Deletes a key with all that is below it, at once or not at all; with an empty path or null, all that is in hKey,
/// which stays. Errors as RegDeleteKeyW.
KVX_API LONG SHDeleteKeyW(HKEY hKey, LPCWSTR pszSubKey) noexcept;

/// Reads a value; a null or empty name is the key's default value. *pdwSize is the room in bytes, and afterwards the
/// size of the data. Without pData it only asks for the size. Texts are given as they were stored, with a NUL or
/// without. ERROR_FILE_NOT_FOUND; ERROR_MORE_DATA, with *pdwSize and *pdwType set; ERROR_INVALID_PARAMETER for pData
/// without pdwSize or a reserved pointer.
KVX_API LONG RegQueryValueExW(HKEY hKey, LPCWSTR pszName, DWORD * pdwReserved, DWORD * pdwType, BYTE * pData,
                              DWORD * pdwSize) noexcept;

/// The same for callers that want whole texts: REG_SZ and REG_EXPAND_SZ end with a NUL, and in the latter each %NAME%
/// of the environment is replaced and the type told as REG_SZ.
KVX_API LONG SHQueryValueExW(HKEY hKey, LPCWSTR pszName, DWORD * pdwReserved, DWORD * pdwType, void * pData,
                             DWORD * pdwSize) noexcept;

/// Writes a value of any type. ERROR_NOACCESS for null data of a size; ERROR_INVALID_PARAMETER for a name that is too
/// long or reserved other than 0; ERROR_NOT_ENOUGH_MEMORY for data that is too large.
KVX_API LONG RegSetValueExW(HKEY hKey, LPCWSTR pszName, DWORD dwReserved, DWORD dwType, BYTE const * pData,
                            DWORD nSize) noexcept;

/// The same for a value of the subkey, which is made if it is missing; a null or empty path is hKey itself.
KVX_API LONG SHSetValueW(HKEY hKey, LPCWSTR pszSubKey, LPCWSTR pszName, DWORD dwType, void const * pData,
                         DWORD nSize) noexcept;

/// ERROR_FILE_NOT_FOUND.
KVX_API LONG RegDeleteValueW(HKEY hKey, LPCWSTR pszName) noexcept;

/// The name of the subkey at an index, with a NUL. *pnName is the room in characters, and afterwards the length without
/// the NUL. Keys have no class: *pnClass becomes 0. ERROR_NO_MORE_ITEMS behind the last; ERROR_MORE_DATA, with *pnName
/// as it was; ERROR_NOT_SUPPORTED for a time, which isn't kept; ERROR_INVALID_PARAMETER for a null name or reserved
/// pointer.
KVX_API LONG RegEnumKeyExW(HKEY hKey, DWORD nIndex, LPWSTR pszName, DWORD * pnName, DWORD * pdwReserved,
                           LPWSTR pszClass, DWORD * pnClass, FILETIME * pLastWrite) noexcept;

/// Name, type and data of the value at an index, with the rules of RegEnumKeyExW and RegQueryValueExW. ERROR_MORE_DATA
/// when the name or the data doesn't fit; *pdwSize is then the size needed.
KVX_API LONG RegEnumValueW(HKEY hKey, DWORD nIndex, LPWSTR pszName, DWORD * pnName, DWORD * pdwReserved,
                           DWORD * pdwType, BYTE * pData, DWORD * pdwSize) noexcept;

/// Counts and greatest lengths; each pointer may be null. Lengths of names are in characters without the NUL, those of
/// values in bytes. The length of the security descriptor and the time aren't kept: ERROR_NOT_SUPPORTED.
KVX_API LONG RegQueryInfoKeyW(HKEY hKey, LPWSTR pszClass, DWORD * pnClass, DWORD * pdwReserved, DWORD * pnSubKeys,
                              DWORD * pnMaxSubKey, DWORD * pnMaxClass, DWORD * pnValues, DWORD * pnMaxValueName,
                              DWORD * pnMaxValue, DWORD * pnSecurityDescriptor, FILETIME * pLastWrite) noexcept;
