#pragma once

/// A provider that knows its commands under a shorter path, made from `forward:type:params`.

#include "kvx/messaging/MsgFactory.h"
#include "kvx/messaging/MsgProvider.h"

/// Takes the path of its target's parent off a command before an inner provider serves it: on the target `a.b.c` the
/// command keeps `c`. On a top-level target `t`, which has no parent, `t` itself is taken off. The request's command
/// stays changed, and is lower case; the prefix goes wherever it occurs.
class KVX_API CMsgForwardProvider : public CMsgProvider
{
public:
    /// Owns the inner provider.
    explicit CMsgForwardProvider(CMsgProvider * inner);
    CMsgForwardProvider(CMsgForwardProvider const &) = delete;
    ~CMsgForwardProvider() override;

    CMsgProvider * GetInner() const { return m_pInner; }

    void SetTarget(CMsgTarget * target) override;
    DWORD DetachTarget() override;
    void Service(CMsgRequest & request) override;
    void RegisterProviderMap() override { m_pInner->RegisterProviderMap(); }

private:
    CString m_strPrefix;
    CMsgProvider * m_pInner;
};

class KVX_API CMsgForwardFactory : public CMsgFactory
{
public:
    /// Null if the inner provider can't be made.
    CMsgProvider * CreateProvider(LPCTSTR params) override;
};
