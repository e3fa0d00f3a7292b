#pragma once

/// Many values of registry keys at once: faster than one by one, for those who copy whole trees.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

#include <span>
#include <string>
#include <vector>

namespace kvx
{
struct RegistryValue
{
    std::basic_string<WCHAR> strName; ///< empty: the default value
    DWORD nType = REG_NONE;
    std::vector<BYTE> data;
    HKEY key = nullptr;
};

/// Sets all of them, each in its key, in that order, and gives the system's code. Where the host can, they become
/// visible at once and a failure leaves none of them; else those before the failure stay. Any thread.
KVX_API LONG SetRegistryValues(std::span<RegistryValue const> values);

/// Reads the values of a key in pieces, in the order of their enumeration. What is written meanwhile may be seen or
/// not. Any thread, one at a time.
class KVX_API RegistryValueReader
{
public:
    /// The key belongs to the caller, who keeps it open. With `namesOnly` types and data aren't read.
    RegistryValueReader(HKEY key, bool namesOnly) : m_key(key), m_bNamesOnly(namesOnly) {}

    /// Replaces `values` by the next ones: at least one, about a megabyte at most unless one value is larger, and none
    /// at the end. Gives the system's code.
    LONG Read(std::vector<RegistryValue> & values);

private:
    HKEY m_key;
    bool m_bNamesOnly;
    long long m_nNext = 0; // what the host goes on from
};
} // namespace kvx
