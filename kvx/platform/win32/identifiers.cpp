#include "kvx/platform/win32/identifiers.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/retry.h"

#include <cstdlib>
#include <string_view>

#include <sys/random.h>

namespace
{

constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);

constexpr std::size_t TEXT_LENGTH = 36;
constexpr std::size_t BYTES = 16;
/// Where the digits of the bytes stand, in the order of the text.
constexpr std::size_t PLACES[BYTES] = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};

int ValueOf(WCHAR c)
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    WCHAR const nLower = static_cast<WCHAR>(c | 0x20);
    return nLower >= 'a' && nLower <= 'f' ? nLower - 'a' + 10 : -1;
}

} // namespace

HRESULT CoCreateGuid(GUID * pGuid) noexcept
{
    if (!pGuid)
    {
        return E_POINTER;
    }
    GUID guid{};
    // So few bytes come as a whole or not at all.
    if (kvx::win32::Retry([&] { return ::getrandom(&guid, sizeof guid, 0); }) != sizeof guid)
    {
        return E_FAIL;
    }
    guid.Data3 = static_cast<WORD>((guid.Data3 & 0x0FFF) | 0x4000);
    guid.Data4[0] = static_cast<BYTE>((guid.Data4[0] & 0x3F) | 0x80);
    *pGuid = guid;
    return S_OK;
}

RPC_STATUS UuidToStringW(UUID const * pUuid, RPC_WSTR * ppszText)
{
    if (!pUuid || !ppszText)
    {
        return RPC_S_INVALID_ARG;
    }
    auto * const pszText = static_cast<WCHAR *>(std::malloc((TEXT_LENGTH + 1) * sizeof(WCHAR)));
    if (!pszText)
    {
        return ERROR_OUTOFMEMORY;
    }
    BYTE bytes[BYTES] = {
        static_cast<BYTE>(pUuid->Data1 >> 24), static_cast<BYTE>(pUuid->Data1 >> 16),
        static_cast<BYTE>(pUuid->Data1 >> 8),  static_cast<BYTE>(pUuid->Data1),
        static_cast<BYTE>(pUuid->Data2 >> 8),  static_cast<BYTE>(pUuid->Data2),
        static_cast<BYTE>(pUuid->Data3 >> 8),  static_cast<BYTE>(pUuid->Data3),
    };
    for (std::size_t i = 0; i < 8; ++i)
    {
        bytes[8 + i] = pUuid->Data4[i];
    }
    for (std::size_t i = 0; i < TEXT_LENGTH; ++i)
    {
        pszText[i] = '-';
    }
    pszText[TEXT_LENGTH] = 0;
    constexpr char DIGITS[] = "0123456789abcdef";
    for (std::size_t i = 0; i < BYTES; ++i)
    {
        pszText[PLACES[i]] = static_cast<WCHAR>(DIGITS[bytes[i] >> 4]);
        pszText[PLACES[i] + 1] = static_cast<WCHAR>(DIGITS[bytes[i] & 15]);
    }
    *ppszText = pszText;
    return RPC_S_OK;
}

RPC_STATUS RpcStringFreeW(RPC_WSTR * ppszText) noexcept
{
    if (!ppszText)
    {
        return RPC_S_INVALID_ARG;
    }
    std::free(*ppszText);
    *ppszText = nullptr;
    return RPC_S_OK;
}

RPC_STATUS UuidFromStringW(WCHAR const * pszText, UUID * pUuid) noexcept
{
    if (!pUuid)
    {
        return RPC_S_INVALID_ARG;
    }
    if (!pszText)
    {
        *pUuid = {};
        return RPC_S_OK;
    }
    std::u16string_view const text(pszText);
    if (text.size() != TEXT_LENGTH || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-')
    {
        return RPC_S_INVALID_STRING_UUID;
    }
    BYTE bytes[BYTES];
    for (std::size_t i = 0; i < BYTES; ++i)
    {
        int const nHigh = ValueOf(text[PLACES[i]]);
        int const nLow = ValueOf(text[PLACES[i] + 1]);
        if (nHigh < 0 || nLow < 0)
        {
            return RPC_S_INVALID_STRING_UUID;
        }
        bytes[i] = static_cast<BYTE>(nHigh << 4 | nLow);
    }
    pUuid->Data1 = static_cast<DWORD>(bytes[0]) << 24 | static_cast<DWORD>(bytes[1] << 16 | bytes[2] << 8 | bytes[3]);
    pUuid->Data2 = static_cast<WORD>(bytes[4] << 8 | bytes[5]);
    pUuid->Data3 = static_cast<WORD>(bytes[6] << 8 | bytes[7]);
    for (std::size_t i = 0; i < 8; ++i)
    {
        pUuid->Data4[i] = bytes[8 + i];
    }
    return RPC_S_OK;
}
