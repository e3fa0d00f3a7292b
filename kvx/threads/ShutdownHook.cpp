#include "kvx/threads/ShutdownHook.h"

#include "kvx/platform/mfc/Afx.h"

#include <atomic>

namespace
{
constinit std::atomic<int> g_nEnding{0};

/// The hooks there are, the newest first. Never gone: an object of the application's may outlive everything here.
struct Hooks
{
    CCriticalSection lock;
    CShutdownHook * pFirst = nullptr;
};

Hooks & GetHooks()
{
    static Hooks & s_hooks = *new Hooks;
    return s_hooks;
}
} // namespace

CShutdownHook::CShutdownHook(Proc proc, void * object) : m_pProc(proc), m_pObject(object)
{
    Hooks & hooks = GetHooks();
    CSingleLock guard(&hooks.lock, TRUE);
    m_pNext = hooks.pFirst;
    if (m_pNext)
    {
        m_pNext->m_pPrevious = this;
    }
    hooks.pFirst = this;
}

CShutdownHook::~CShutdownHook()
{
    Hooks & hooks = GetHooks();
    CSingleLock guard(&hooks.lock, TRUE);
    (m_pPrevious ? m_pPrevious->m_pNext : hooks.pFirst) = m_pNext;
    if (m_pNext)
    {
        m_pNext->m_pPrevious = m_pPrevious;
    }
}

CShutdownHook::Ending::Ending()
{
    ++g_nEnding;
    Hooks & hooks = GetHooks();
    CSingleLock guard(&hooks.lock, TRUE);
    for (CShutdownHook * hook = hooks.pFirst; hook; hook = hook->m_pNext)
    {
        hook->m_pProc(hook->m_pObject);
    }
}

CShutdownHook::Ending::~Ending()
{
    --g_nEnding;
}

bool CShutdownHook::IsEnding()
{
    return g_nEnding != 0;
}
