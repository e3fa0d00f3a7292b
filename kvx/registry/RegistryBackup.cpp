#include "kvx/registry/RegistryBackup.h"

#include "kvx/foundation/AppException.h"

LONG CRegistryBackup::Fail(LONG code, CString const & place, CString const & text)
{
    if (code != 0 && m_strError.IsEmpty())
    {
        m_strError = place + (place.IsEmpty() ? _T("") : _T(": ")) +
                     (text.IsEmpty() ? CWinError::GetText(static_cast<DWORD>(code)) : text);
    }
    return code;
}

void CRegistryBackup::Start()
{
    m_nKeys = m_nValues = m_nWithoutData = 0;
    m_strError.Empty();
}
