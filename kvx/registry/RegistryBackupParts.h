#pragma once

/// What writing and reading a backup share.

#include "kvx/platform/RegistryValues.h"
#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryBackup.h"

#include <new>
#include <vector>

namespace kvx::backup
{
using View = CString::View;

inline CString Join(CString const & path, CString const & name)
{
    return path + _T("\\") + name;
}

inline CString PlaceOf(CString const & key, View value)
{
    return key + _T(", value \"") + CString(value) + _T("\"");
}

/// Calls `work(value)` for each value of the key, until that gives something else than 0.
template <class WORK>
LONG ForEachValue(HKEY key, bool namesOnly, WORK work)
{
    kvx::RegistryValueReader reader(key, namesOnly);
    std::vector<RegistryValue> values;
    LONG code = 0;
    do
    {
        code = reader.Read(values);
        for (auto value = values.begin(); value != values.end() && code == 0; ++value)
        {
            code = work(*value);
        }
    } while (code == 0 && !values.empty());
    return code;
}

/// Runs the work, and gives the code of a file or of memory that failed in it.
template <class WORK>
LONG Guarded(WORK work)
{
    try
    {
        return work();
    }
    catch (CFileException * failure)
    {
        LONG const code = failure->m_lOsError > 0 ? failure->m_lOsError : ERROR_WRITE_FAULT;
        failure->Delete();
        return code;
    }
    catch (CMemoryException * failure)
    {
        failure->Delete();
    }
    catch (std::bad_alloc const &)
    {
    }
    return ERROR_NOT_ENOUGH_MEMORY;
}
} // namespace kvx::backup
