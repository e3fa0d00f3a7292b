#include "kvx/platform/win32/drives.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"

#include <algorithm>
#include <new>
#include <string_view>

using namespace kvx::win32;

namespace
{

/// 0 for a text that is no drive of this host.
char16_t DriveOf(std::u16string_view text)
{
    char16_t const c = text.empty() ? u'\0' : static_cast<char16_t>(text[0] & ~0x20);
    bool const bShape = text.size() >= 2 && text[1] == u':' && (text.size() == 2 || text.substr(2) == u"\\");
    return bShape && (c == u'C' || c == u'Z') ? c : u'\0';
}

} // namespace

DWORD GetLogicalDriveStringsW(DWORD nChars, LPWSTR pszBuffer)
try
{
    constexpr std::u16string_view ROOTS(u"C:\\\0Z:\\\0", 8);
    if (!pszBuffer || nChars <= ROOTS.size())
    {
        return static_cast<DWORD>(ROOTS.size() + 1);
    }
    *std::ranges::copy(ROOTS, pszBuffer).out = 0;
    return static_cast<DWORD>(ROOTS.size());
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

UINT GetDriveTypeW(LPCWSTR pszRoot)
{
    return !pszRoot || DriveOf(pszRoot) ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR;
}

DWORD QueryDosDeviceW(LPCWSTR pszDevice, LPWSTR pszBuffer, DWORD nChars)
try
{
    if (!pszDevice)
    {
        return Refuse(ERROR_NOT_SUPPORTED);
    }
    std::u16string_view const name(pszDevice);
    char16_t const c = name.size() == 2 ? DriveOf(name) : u'\0';
    if (!c)
    {
        return Refuse(ERROR_FILE_NOT_FOUND);
    }
    constexpr std::u16string_view DEVICE = u"\\Device\\Drive";
    if (!pszBuffer || nChars < DEVICE.size() + 3)
    {
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    LPWSTR pszEnd = std::ranges::copy(DEVICE, pszBuffer).out;
    *pszEnd++ = c;
    *pszEnd++ = 0;
    *pszEnd = 0;
    return static_cast<DWORD>(DEVICE.size() + 3);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}
