#include "kvx/messaging/MsgForwardProvider.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgTarget.h"

#include <memory>

CMsgForwardProvider::CMsgForwardProvider(CMsgProvider * inner) : m_pInner(inner)
{
    m_pInner->AddRef(); // it doesn't go with its target's reference
}

CMsgForwardProvider::~CMsgForwardProvider()
{
    CMsgProvider::DeleteWithModule(m_pInner);
}

void CMsgForwardProvider::SetTarget(CMsgTarget * target)
{
    CMsgProvider::SetTarget(target);
    m_pInner->SetTarget(target);
    CMsgTarget const * const parent = target->GetParent();
    m_strPrefix = (parent ? parent : target)->GetPath();
    if (!m_strPrefix.IsEmpty()) // on the root there is nothing to take off
    {
        m_strPrefix += _T(".");
    }
}

DWORD CMsgForwardProvider::DetachTarget()
{
    m_pInner->DetachTarget();
    return CMsgProvider::DetachTarget();
}

void CMsgForwardProvider::Service(CMsgRequest & request)
{
    CString command = request.GetCommand();
    command.MakeLower();
    command.Replace(m_strPrefix, _T(""));
    request.SetCommand(command);
    m_pInner->Service(request);
}

CMsgProvider * CMsgForwardFactory::CreateProvider(LPCTSTR params)
{
    std::unique_ptr<CMsgProvider, void (*)(CMsgProvider *)> inner(CMsgDispatcher::GetInstance()->CreateProvider(params),
                                                                  &CMsgProvider::DeleteWithModule);
    auto * const provider = inner ? new CMsgForwardProvider(inner.get()) : nullptr;
    inner.release();
    return provider;
}
