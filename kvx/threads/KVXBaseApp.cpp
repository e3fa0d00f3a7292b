#include "kvx/threads/KVXBaseApp.h"

#include "kvx/threads/ThreadPool.h"

constinit LONG volatile CKVXBaseApp::m_bIsShuttingDown = 0;

int CKVXBaseApp::ExitInstance()
{
    InitShutdown();
    CThreadPool::TerminateAllThreads(10000);
    return CWinApp::ExitInstance();
}
