#include "kvx/system/WinSecurity.h"

CWinSecurityDescriptor::CWinSecurityDescriptor(int setNullDacl)
{
    InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION);
    if (setNullDacl)
    {
        SetNullDACL();
    }
}

int CWinSecurityDescriptor::SetNullDACL()
{
    return SetSecurityDescriptorDacl(&m_descriptor, TRUE, nullptr, FALSE);
}

CWinSecurityAttributes::CWinSecurityAttributes(int inherit, SECURITY_DESCRIPTOR * descriptor)
    : m_attributes{sizeof(SECURITY_ATTRIBUTES), descriptor, inherit}
{
}
