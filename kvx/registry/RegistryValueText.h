#pragma once

/// A value of a key as the XML of a backup holds it.

#include "kvx/registry/Registry.h"

namespace kvx
{
struct RegistryValueText
{
    DWORD nType = REG_NONE;
    DWORD nSize = 0;  ///< of the data, in bytes, also where they aren't in the text
    CStringA strText; ///< the data in Base64; empty for a value that has none, has too many, or can't be read

    /// False if there is no such value. What else fails is logged, and leaves the text empty.
    bool Read(CRegistry & key, CString const & name, DWORD maxSize);

private:
    void Encode(CString const & name, BYTE const * data);
};
} // namespace kvx
