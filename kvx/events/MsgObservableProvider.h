#pragma once

/// A provider that fires named events at whoever asked for them.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/Lockable.h"
#include "kvx/messaging/MsgProvider.h"

class CMsgMultipleRowSets;
class CMsgObserver;

/// Serves, below its target and for callers in this process alone:
///   observer.advise    parameters connector, events, path; sets the parameter cookie of the request itself
///   observer.unadvise  parameter cookie
///
/// Threads: Advise and Unadvise lock. Firing doesn't: an application doesn't fire while observers come and go.
class KVX_API CMsgObservableProvider : public CMsgProvider, public CLockable, public CAutoDelete
{
public:
    CMsgObservableProvider();
    ~CMsgObservableProvider() override;

    void RegisterProviderMap() override;

    /// Adds an observer (see CMsgObserver::Advise, also for what is thrown); an opaque cookie for Unadvise.
    INT_PTR Advise(LPCTSTR path, LPCTSTR events, LPCTSTR connector);
    /// Ignores a cookie that isn't known; throws CInvalidArgException * for 0.
    void Unadvise(INT_PTR cookie);

    /// Every observer in turn, queued or at once (see CMsgObserver). Non-zero if it worked for at least one; 0 without
    /// observers. Null `params` are none; `rows` may be null.
    int PostObserverEvent(LPCTSTR event, CDictionary const * params, CMsgMultipleRowSets * rows);
    int SendObserverEvent(LPCTSTR event, CDictionary const * params, CMsgMultipleRowSets * rows);

private:
    CObList m_observers{10};

    void OnAdvise(CMsgRequest & request);
    void OnUnadvise(CMsgRequest & request);

    using Deliver = int (CMsgObserver::*)(LPCTSTR, CDictionary const &, CMsgMultipleRowSets *) const;
    int Fire(Deliver deliver, LPCTSTR event, CDictionary const * params, CMsgMultipleRowSets * rows);
};
