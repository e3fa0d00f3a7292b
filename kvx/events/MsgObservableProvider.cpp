#include "kvx/events/MsgObservableProvider.h"

#include "kvx/events/MsgObserver.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/messaging/MsgRequest.h"

#include <memory>

CMsgObservableProvider::CMsgObservableProvider()
{
    RegisterAutoDelete(m_observers);
}

CMsgObservableProvider::~CMsgObservableProvider()
{
    PerformAutoDelete(nullptr, 0);
}

void CMsgObservableProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    using Entry = _LocalMsgMapEntry<CMsgObservableProvider>;
    AddProvider(_T("observer.advise"), new Entry(this, &CMsgObservableProvider::OnAdvise));
    AddProvider(_T("observer.unadvise"), new Entry(this, &CMsgObservableProvider::OnUnadvise));
}

INT_PTR CMsgObservableProvider::Advise(LPCTSTR path, LPCTSTR events, LPCTSTR connector)
{
    CSingleLock guard(*this, TRUE);
    auto observer = std::make_unique<CMsgObserver>();
    observer->Advise(path, events, connector);
    POSITION const pos = m_observers.AddTail(observer.get());
    observer.release();
    return reinterpret_cast<INT_PTR>(pos);
}

void CMsgObservableProvider::Unadvise(INT_PTR cookie)
{
    CSingleLock guard(*this, TRUE);
    if (cookie == 0)
    {
        AfxThrowInvalidArgException();
    }
    // The cookie may come from a request: it is compared before it is used.
    for (POSITION pos = m_observers.GetHeadPosition(); pos;)
    {
        POSITION const at = pos;
        CObject * const observer = m_observers.GetNext(pos);
        if (reinterpret_cast<INT_PTR>(at) == cookie)
        {
            m_observers.RemoveAt(at);
            delete observer;
            return;
        }
    }
}

int CMsgObservableProvider::PostObserverEvent(LPCTSTR event, CDictionary const * params, CMsgMultipleRowSets * rows)
{
    return Fire(&CMsgObserver::PostEvent, event, params, rows);
}

int CMsgObservableProvider::SendObserverEvent(LPCTSTR event, CDictionary const * params, CMsgMultipleRowSets * rows)
{
    return Fire(&CMsgObserver::SendEvent, event, params, rows);
}

int CMsgObservableProvider::Fire(Deliver deliver, LPCTSTR event, CDictionary const * params, CMsgMultipleRowSets * rows)
{
    CDictionary const none;
    int bDone = 0;
    for (POSITION pos = m_observers.GetHeadPosition(); pos;)
    {
        auto const * const observer = static_cast<CMsgObserver const *>(m_observers.GetNext(pos));
        bDone |= (observer->*deliver)(event, params ? *params : none, rows) != 0;
    }
    return bDone;
}

void CMsgObservableProvider::OnAdvise(CMsgRequest & request)
{
    INT_PTR const cookie = Advise(request[_T("path")].GetString(), request[_T("events")].GetString(),
                                  request[_T("connector")].GetString());
    request[_T("cookie")].FromInteger64(cookie);
}

void CMsgObservableProvider::OnUnadvise(CMsgRequest & request)
{
    Unadvise(static_cast<INT_PTR>(request[_T("cookie")].ToInteger64()));
}
