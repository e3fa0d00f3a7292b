#pragma once

/// The base of application objects, and the process-wide flag that says that shutdown has begun.
///
/// An application ends in this order: it stops its own providers and connections and the dispatcher's notification
/// queue; then ExitInstance, or InitShutdown and CThreadPool::TerminateAllThreads; then CLogManager::Terminate.

#include "kvx/platform/mfc/Afx.h"

class KVX_API CKVXBaseApp : public CWinApp
{
public:
    /// There is no way back: from now on the pool gives out no threads.
    static void InitShutdown() { InterlockedExchange(&m_bIsShuttingDown, 1); }
    static LONG IsShuttingDown() { return InterlockedExchangeAdd(&m_bIsShuttingDown, 0); }

    BOOL InitInstance() override { return CWinApp::InitInstance(); }
    /// Begins the shutdown and ends all pool threads, with 10,000 milliseconds for each.
    int ExitInstance() override;

private:
    static LONG volatile m_bIsShuttingDown;
};
