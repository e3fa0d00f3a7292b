#pragma once

/// A node of the command tree: one segment of a dotted path, with the providers that hang on it.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/ObIterator.h"
#include "kvx/messaging/MsgRequest.h"

class CMsgProvider;

/// Segments are matched without regard to case; a request's own command text stays as it is. Commands bubble: what no
/// deeper target handles goes to the providers of the targets above it.
///
/// A target holds one reference on each of its providers and owns its children.
/// Threads: requests enter from any thread, and the tree has no lock: register at start-up, or on paths that no other
/// thread walks at that moment.
class KVX_API CMsgTarget : public CObject, public CAutoDelete
{
public:
    CMsgTarget() : CMsgTarget(nullptr, CString()) {}
    CMsgTarget(CMsgTarget * parent, CString const & name);
    CMsgTarget(CMsgTarget const &) = delete;
    CMsgTarget & operator=(CMsgTarget const &) = delete;
    /// Deletes the children, then detaches the providers.
    ~CMsgTarget() override;

    /// Walks down the path and runs what it leads to. Never throws: an exception of a provider becomes the response's
    /// error, and goes to the log.
    void Service(CString const & path, CMsgRequest & request);
    /// The same by a text that stays as it is meanwhile, whatever a provider does to the request.
    void ServicePath(CString::View path, CMsgRequest & request);
    /// Serves the request below this target: its command without this target's path.
    void Forward(CMsgRequest & request);

    /// Creates targets on the way; 0 for null or a provider that is there already. "root:" begins at the root.
    int RegisterProvider(CString const & path, CMsgProvider * provider);
    int AddProvider(CMsgProvider * provider);
    /// 0 if absent. With `detach` the target's reference goes as well, else the caller has to finish that.
    int RemoveProvider(CMsgProvider * provider, int detach);
    int RemoveProvider(CString const & params, int detach);
    /// Takes the provider off the target of that path without detaching it.
    int UnregisterProvider(CString const & path, CMsgProvider * provider);
    /// The first provider of this target with exactly these params, or null.
    CMsgProvider * LookupProvider(CString const & params) const;

    /// The deepest target that exists on the path: never null.
    CMsgTarget * LookupTarget(CString const & path);
    int DeleteTarget(CString const & path);
    /// The same without a text object, which would need memory: destructors call it.
    int DeleteTargetAt(CString::View path);

    CString const & GetName() const { return m_strName; }
    CString GetPath() const;
    /// Null for the root and for the targets right below it, which keeps the root's empty name out of paths.
    CMsgTarget * GetParent() const { return m_pParent; }
    CObIterator IterateChildren() const { return CObIterator(m_children); }

protected:
    /// Runs all providers of `target`, in order of registration, whatever each of them does.
    void ServiceProviders(CMsgTarget * target, CMsgRequest & request);
    void DetachProvider(CMsgProvider * provider);

private:
    CMsgTarget * m_pParent;
    CString m_strName; // lower case
    CObList m_providers{10};
    CMapStringToOb m_children{10};

    void EndProviders();
    void DetachProviders();
    CMsgTarget * m_pEndsBefore = nullptr; // while a tree ends: the target to go on with behind this one
    CMsgTarget * TakeChild();
    CMsgTarget * FindChild(CString::View segment) const;
    POSITION FindProvider(CString const & params) const;
};
