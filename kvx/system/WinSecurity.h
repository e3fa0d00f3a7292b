#pragma once

/// What named objects are created with. On hosts other than Windows objects are the user's own, whatever is said here.

#include "kvx/platform/mfc/Afx.h"

/// An absolute security descriptor without owner, group or audit list.
class KVX_API CWinSecurityDescriptor
{
public:
    /// With `setNullDacl` it lets everybody in; otherwise it holds no access list.
    explicit CWinSecurityDescriptor(int setNullDacl = 0);
    virtual ~CWinSecurityDescriptor() = default;

    /// Non-zero on success.
    int SetNullDACL();
    operator SECURITY_DESCRIPTOR *() { return &m_descriptor; }
    SECURITY_DESCRIPTOR & GetDescriptor() { return m_descriptor; }

    /// Lets everybody in.
    static CWinSecurityDescriptor NULL_DACL;

private:
    SECURITY_DESCRIPTOR m_descriptor;
};

/// The attributes that a call takes. The descriptor is not owned.
class KVX_API CWinSecurityAttributes
{
public:
    explicit CWinSecurityAttributes(int inherit = 0, SECURITY_DESCRIPTOR * descriptor = nullptr);
    virtual ~CWinSecurityAttributes() = default;

    void SetDescriptor(SECURITY_DESCRIPTOR * descriptor) { m_attributes.lpSecurityDescriptor = descriptor; }
    operator SECURITY_ATTRIBUTES *() { return &m_attributes; }
    SECURITY_ATTRIBUTES & GetAttributes() { return m_attributes; }

    /// Not inherited, with the descriptor that lets everybody in.
    static CWinSecurityAttributes NULL_DACL;

private:
    SECURITY_ATTRIBUTES m_attributes;
};
