#include "kvx/messaging/MsgProvider.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/messaging/MsgTarget.h"
#include "kvx/system/WinModule.h"

#include <utility>

CMsgProvider::CMsgProvider(CMsgProvider const & other)
    : CRefObject(other), CPropertyOwner(other), m_strParams(other.m_strParams), m_pTarget(other.m_pTarget)
{
}

CMsgProvider::~CMsgProvider()
{
    if (CMsgTarget * const target = std::exchange(m_pTarget, nullptr))
    {
        target->RemoveProvider(this, 0);
    }
    // The entries that go now call DetachAggregate, and must find nothing.
    delete std::exchange(m_pAggregates, nullptr);
}

void CMsgProvider::DeleteWithModule(CMsgProvider * provider)
{
    if (!provider)
    {
        return;
    }
    CWinModule * const module = provider->m_pInProcModule;
    delete provider;
    delete module;
}

void CMsgProvider::SetTarget(CMsgTarget * target)
{
    m_pTarget = target;
    AddRef();
}

DWORD CMsgProvider::DetachTarget()
{
    m_pTarget = nullptr;
    return Release(1);
}

void CMsgProvider::Service(CMsgRequest & request)
{
    request.SetHandled(0);
}

int CMsgProvider::AddProvider(CString const & path, CMsgProvider * provider)
{
    return m_pTarget ? m_pTarget->RegisterProvider(path, provider) : 0;
}

void CMsgProvider::AttachAggregate(CMsgProvider * provider)
{
    if (!m_pAggregates)
    {
        m_pAggregates = new CObIntegerLookup(1);
    }
    m_pAggregates->SetAt(reinterpret_cast<INT_PTR>(provider), provider);
}

void CMsgProvider::DetachAggregate(CMsgProvider * provider)
{
    if (m_pAggregates)
    {
        m_pAggregates->RemoveKey(reinterpret_cast<INT_PTR>(provider));
    }
}

int CMsgProvider::BroadcastStateChange(CString const & state, int post)
{
    CString type;
    CString shortName;
    CUtilities::SplitString(m_strParams, type, shortName, _T("@"), 0);
    CString first;
    CString rest;
    CUtilities::SplitString(m_pTarget ? m_pTarget->GetPath() : CString(), first, rest, _T("."), 0);

    CDictionary params;
    params[_T("state")] = state;
    params[_T("provider")] = shortName;
    CMsgRequest request;
    request.SetParams(params);
    CString const command = first + _T(".services.notify.") + rest + _T(".") + shortName + _T(".") + state;
    if (post)
    {
        request.Notify(command);
    }
    else
    {
        request.Send(command, nullptr);
    }
    return 1;
}
