#pragma once

/// Unique identifiers and their text form. All calls may come from any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

struct GUID
{
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
};
using UUID = GUID;
using RPC_STATUS = LONG;
using RPC_WSTR = WCHAR *;

inline constexpr RPC_STATUS RPC_S_OK = 0;
inline constexpr RPC_STATUS RPC_S_INVALID_ARG = 87;
inline constexpr RPC_STATUS RPC_S_INVALID_STRING_UUID = 1705;

/// An identifier of the kernel's random numbers (RFC 9562, version 4). E_POINTER for null.
KVX_API HRESULT CoCreateGuid(GUID * pGuid) noexcept;

/// The form of 36 characters, in lower case, in memory that RpcStringFreeW frees. RPC_S_INVALID_ARG for null.
KVX_API RPC_STATUS UuidToStringW(UUID const * pUuid, RPC_WSTR * ppszText);
/// Frees the text and sets the pointer to null.
KVX_API RPC_STATUS RpcStringFreeW(RPC_WSTR * ppszText) noexcept;
/// Reads that form, in any case; null stands for the identifier of zeros. RPC_S_INVALID_STRING_UUID, with *pUuid as it
/// was, for anything else.
KVX_API RPC_STATUS UuidFromStringW(WCHAR const * pszText, UUID * pUuid) noexcept;
