#pragma once

/// Makes providers and listeners from the parameters of a configuration string.

#include "kvx/platform/mfc/Afx.h"

class CMsgListener;
class CMsgProvider;

/// Registered with the dispatcher under the type name that stands before the ":" of a configuration string.
/// Threads: the built-in factories keep no state, and may be called by several threads.
class KVX_API CMsgFactory : public CObject
{
public:
    CMsgFactory() = default;

    /// A new provider or listener with a count of 0, or null if this factory makes none or can't.
    virtual CMsgProvider * CreateProvider(LPCTSTR params);
    virtual CMsgListener * CreateListener(LPCTSTR params);

    /// The module that holds the factory's code, null for a built-in one; the dispatcher deletes it behind the factory.
    CObject * GetModule() const { return m_pModule; }
    void SetModule(CObject * module) { m_pModule = module; }

private:
    CObject * m_pModule = nullptr;
};
