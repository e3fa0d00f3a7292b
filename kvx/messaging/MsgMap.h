#pragma once

/// Message maps: each command of a provider is a small provider of its own, on a leaf target below its owner. An
/// override of RegisterProviderMap calls its base class's, and then AddProvider for each command:
///
///     void CFiles::RegisterProviderMap()
///     {
///         CMsgProvider::RegisterProviderMap();
///         AddProvider(_T("files.list"), new _MsgMapEntry<CFiles>(this, &CFiles::OnList));
///     }

#include "kvx/messaging/MsgProvider.h"

/// Calls a member function of its owner. The owner holds it as an aggregate.
template <class T>
class _MsgMapEntry : public CMsgProvider
{
public:
    using Handler = void (T::*)(CMsgRequest &);

    _MsgMapEntry(T * owner, Handler handler) : m_pOwner(owner), m_pOwnerBase(owner), m_pHandler(handler)
    {
        if (m_pOwnerBase)
        {
            m_pOwnerBase->AttachAggregate(this);
        }
    }
    ~_MsgMapEntry() override
    {
        if (m_pOwnerBase)
        {
            m_pOwnerBase->DetachAggregate(this);
        }
    }

    void Service(CMsgRequest & request) override
    {
        request.SetHandled(1);
        (m_pOwner->*m_pHandler)(request);
    }

private:
    T * m_pOwner;
    CMsgProvider * m_pOwnerBase; // an entry may go when only the base of its owner is left
    Handler m_pHandler;
};

/// The same for callers inside the process alone: a request that came from outside, on whatever road, gets an empty
/// success, and so does one that its caller has pinned to a connection.
template <class T>
class _LocalMsgMapEntry : public _MsgMapEntry<T>
{
public:
    using _MsgMapEntry<T>::_MsgMapEntry;

    void Service(CMsgRequest & request) override
    {
        if (!request.IsFromOutside() && !request.GetConnection())
        {
            _MsgMapEntry<T>::Service(request);
        }
    }
};
