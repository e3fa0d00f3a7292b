#pragma once

/// One party that wants to hear of the events of an observable provider.

#include "kvx/foundation/Dictionary.h"

class CMsgMultipleRowSets;
class CMsgRequest;

/// An event becomes a one-way request whose command is a path and the name under which this observer wants the event.
/// Delivered in this process, or through a connection of the observer's own to another one.
/// Threads: any number may deliver; Advise and Unadvise are for one thread, while nobody delivers.
class KVX_API CMsgObserver : public CObject
{
public:
    CMsgObserver();
    CMsgObserver(CMsgObserver const &) = delete;
    CMsgObserver & operator=(CMsgObserver const &) = delete;
    ~CMsgObserver() override { Unadvise(); }

    /// `events` is `event,event=name,...`. With an empty `connector` events go to this process's own tree; else it is a
    /// provider configuration that says how to reach the observer, and events arrive there in lower case. Throws
    /// CMsgException * with code 87 for a connector that can't be used.
    void Advise(CString const & path, CString const & events, CString const & connector);
    /// Drops the observer's connection; acts once.
    void Unadvise();

    /// Queues the event, on the common notification queue: events may overtake one another, and failures aren't seen.
    /// Non-zero on success, which includes an event that this observer doesn't want.
    int PostEvent(LPCTSTR event, CDictionary const & params, CMsgMultipleRowSets * rows) const;
    /// Delivers the event on the calling thread, in order; 0 also for a failure of the handler or the connection.
    int SendEvent(LPCTSTR event, CDictionary const & params, CMsgMultipleRowSets * rows) const;

private:
    CString m_strName; // of the target that holds the observer's connection
    CString m_strPath;
    CDictionary m_events;

    CString GetCommand(LPCTSTR event) const;
};
