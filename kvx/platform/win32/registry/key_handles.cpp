#include "kvx/platform/win32/registry/key_handles.h"

#include <cstdint>

namespace kvx::win32::registry
{

namespace
{

constexpr std::uint32_t PREDEFINED = 0x80000000;

/// The predefined keys keep what they have read as others do.
struct Roots
{
    static constexpr std::size_t NONE = 7;

    Ref<RegistryKey> keys[NONE];

    Roots()
    {
        constexpr Place PLACES[NONE] = {
            {KEY_CLASSES, 2}, {KEY_USER, 1}, {KEY_MACHINE, 0}, {KEY_USERS, 0}, {}, {KEY_CONFIG, 0}, {}};
        for (std::size_t i = 0; i < NONE; ++i)
        {
            if (PLACES[i].id != 0)
            {
                keys[i] = Ref<RegistryKey>(new RegistryKey(PLACES[i].id, PLACES[i].nDepth, KEY_ALL_ACCESS));
            }
        }
    }
};

std::uint32_t GetValue(HKEY hKey) noexcept
{
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(hKey));
}

} // namespace

bool IsPredefined(HKEY hKey) noexcept
{
    return GetValue(hKey) >= PREDEFINED && GetValue(hKey) - PREDEFINED < Roots::NONE;
}

LONG FindKey(HKEY hKey, Ref<RegistryKey> & key)
{
    std::uint32_t const nValue = GetValue(hKey);
    if ((nValue & PREDEFINED) == 0)
    {
        key = FindObject<RegistryKey>(hKey);
        return key ? 0 : ERROR_INVALID_HANDLE;
    }
    if (nValue - PREDEFINED >= Roots::NONE)
    {
        return ERROR_INVALID_HANDLE;
    }
    static Roots & s_roots = *new Roots; // threads may use them until the process has ended
    key = s_roots.keys[nValue - PREDEFINED];
    return key ? 0 : ERROR_NOT_SUPPORTED;
}

LONG MakeHandle(Place const & place, REGSAM access, HKEY & hResult)
{
    hResult = static_cast<HKEY>(
        OpenHandle(Ref<KernelObject>(new (std::nothrow) RegistryKey(place.id, place.nDepth, access))));
    return hResult ? 0 : static_cast<LONG>(GetLastError());
}

} // namespace kvx::win32::registry
