#include "kvx/registry/RegistryValueText.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"

#include <cstdlib>
#include <memory>

namespace kvx
{
bool RegistryValueText::Read(CRegistry & key, CString const & name, DWORD maxSize)
{
    if (RegQueryValueExW(key, name, nullptr, &nType, nullptr, &nSize) != 0)
    {
        return false;
    }
    if (nSize == 0 || nSize > maxSize)
    {
        return true;
    }
    std::unique_ptr<void, decltype(&std::free)> const data(std::malloc(nSize), &std::free);
    if (!data)
    {
        LogError(_T("CRegistry::SaveValuesToXML - %s - reg buffer allocation (%u) failure"), name, nSize);
        return true;
    }
    LONG const code = RegQueryValueExW(key, name, nullptr, &nType, static_cast<BYTE *>(data.get()), &nSize);
    if (code != 0)
    {
        LogError(_T("CRegistry::SaveValuesToXML - %s - RegQueryValueEx failure [%d|%s]"), name, code,
                 CWinError::GetText(static_cast<DWORD>(code)));
        return true;
    }
    Encode(name, static_cast<BYTE const *>(data.get()));
    return true;
}

void RegistryValueText::Encode(CString const & name, BYTE const * data)
{
    int const size = static_cast<int>(nSize);
    int length = CUtilities::Base64EncodeGetRequiredLength(size, 0);
    if (length == 0)
    {
        DWORD const code = GetLastError();
        LogError(_T("CRegistry::SaveValuesToXML - %s - Base64EncodeGetRequiredLength(%d) failure [%u|%s]"), name, size,
                 code, CWinError::GetText(code));
        return;
    }
    char * buffer = nullptr;
    try
    {
        buffer = strText.GetBuffer(length);
    }
    catch (CMemoryException * failure)
    {
        failure->Delete();
        LogError(_T("CRegistry::SaveValuesToXML - %s - encode buffer allocation (%d bytes) failure"), name, length);
        return;
    }
    bool const bEncoded = CUtilities::Base64Encode(data, size, buffer, &length, 0) != 0;
    strText.ReleaseBufferSetLength(bEncoded ? length : 0);
    if (!bEncoded)
    {
        DWORD const code = GetLastError();
        LogError(_T("CRegistry::SaveValuesToXML - %s - Base64Encode failure [%u|%s]"), name, code,
                 CWinError::GetText(code));
    }
}
} // namespace kvx
