#pragma once

/// What serves requests: a message map entry, a callback, a connection to another process, a listener.

#include "kvx/foundation/Dictionary.h"
#include "kvx/foundation/ObLookup.h"
#include "kvx/foundation/RefCounter.h"
#include "kvx/messaging/MsgRequest.h"

class CMsgTarget;
class CWinModule;

/// Hangs on a target of the tree, which holds one reference. Starts with a count of 0: the target's reference keeps it
/// alive, and when DetachTarget drops the last one the provider deletes itself.
///
/// Life: created; registered (SetTarget, then RegisterProviderMap); started (StartProvider); serving; stopped
/// (StopProvider, which the library never calls: whoever started a provider stops it); detached.
///
/// Threads: Service may be entered by several threads at once, and the class has no lock. Aggregates and targets
/// change during registration and teardown alone.
class KVX_API CMsgProvider : public CRefObject, public CPropertyOwner
{
public:
    // Texts for BroadcastStateChange.
    static CString const PROVIDER_STARTING;
    static CString const PROVIDER_STARTED;
    static CString const PROVIDER_STOPPING;
    static CString const PROVIDER_STOPPED;

    CMsgProvider() = default;
    CMsgProvider(CMsgProvider const & other);
    CMsgProvider & operator=(CMsgProvider const &) = delete;
    /// Leaves the target that it is still attached to, without detaching; deletes the aggregates.
    ~CMsgProvider() override;

    virtual void SetTarget(CMsgTarget * target);
    /// The new reference count; at 0 the provider is gone.
    virtual DWORD DetachTarget();
    /// The target is about to delete all that is below it, and then detaches this provider. For one that serves from
    /// threads of its own: none of them may go down the tree any more when this returns.
    virtual void TargetEnding() {}
    /// Serves the request and fills its response. May throw anything: the tree catches it and sets the response.
    virtual void Service(CMsgRequest & request);
    /// Called when the provider has got its target: the place to add message map entries.
    virtual void RegisterProviderMap() {}
    virtual int StartProvider() { return 1; }
    virtual int StopProvider() { return 1; }

    CMsgTarget * GetTarget() const { return m_pTarget; }
    /// The whole configuration text that the provider was created from.
    CString const & GetProviderParams() const { return m_strParams; }
    void SetProviderParams(CString const & params) { m_strParams = params; }
    static CString GetProviderName() { return _T("provider"); }

    /// The module that holds the provider's code; the target deletes it when the provider is gone.
    CWinModule * GetInProcModule() const { return m_pInProcModule; }
    void SetInProcModule(CWinModule * module) { m_pInProcModule = module; }
    /// Deletes a provider that hangs on no target, and then its module; null is nothing.
    static void DeleteWithModule(CMsgProvider * provider);

    /// Registers on a path relative to this provider's target ("root:" begins at the root); 0 without a target.
    int AddProvider(CString const & path, CMsgProvider * provider);
    /// Providers that belong to this one and go with it, if their target hasn't deleted them by then.
    void AttachAggregate(CMsgProvider * provider);
    void DetachAggregate(CMsgProvider * provider);

protected:
    /// Tells the rest of the process of a change of state, by a command formed from target path, short name (behind the
    /// "@" of the params) and state: queued with `post`, else sent. Gives 1, whatever becomes of it.
    virtual int BroadcastStateChange(CString const & state, int post);

private:
    CString m_strParams;
    CMsgTarget * m_pTarget = nullptr;
    CObIntegerLookup * m_pAggregates = nullptr;
    CWinModule * m_pInProcModule = nullptr;
};

/// A provider that calls a function. A request on a path below its target counts as handled only if the function calls
/// SetHandled(1).
class KVX_API CMsgCallbackProvider : public CMsgProvider
{
public:
    using Callback = void (*)(CMsgRequest &, void *);

    CMsgCallbackProvider(Callback callback, void * param) : m_pCallback(callback), m_pParam(param) {}
    void Service(CMsgRequest & request) override { m_pCallback(request, m_pParam); }

private:
    Callback m_pCallback;
    void * m_pParam;
};
