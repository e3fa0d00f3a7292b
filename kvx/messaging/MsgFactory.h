#pragma once

/// Makes providers and listeners from the parameters of a configuration string.

#include "kvx/platform/mfc/Afx.h"

class CMsgListener;
class CMsgProvider;
class CWinModule;

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
    CWinModule * GetModule() const { return m_pModule; }
    void SetModule(CWinModule * module) { m_pModule = module; }

    /// Has a module make a factory: it exports, without name mangling, `CMsgFactory * entryPoint(CString const &
    /// name)`. The factory, which the module is set for, or null.
    static CMsgFactory * LoadFactory(CString const & name, CWinModule * module, CString const & entryPoint);

private:
    CWinModule * m_pModule = nullptr;
};
