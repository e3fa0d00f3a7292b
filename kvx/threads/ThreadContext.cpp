#include "kvx/threads/ThreadContext.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"

#include <array>

constinit CThreadContext::HookProc CThreadContext::g_pStartThreadProc = nullptr;
constinit CThreadContext::HookProc CThreadContext::g_pEndThreadProc = nullptr;

CThreadContext::CThreadContext() : m_startEvent(FALSE, FALSE), m_exitEvent(TRUE, FALSE) {}

CThreadContext::~CThreadContext()
{
    if (m_hOwn)
    {
        CloseHandle(m_hOwn);
    }
}

int CThreadContext::Create()
{
    DWORD id = 0;
    HANDLE const handle = CreateThread(nullptr, 0, &ContextProc, this, 0, &id);
    if (!handle)
    {
        LogError(_T("%s"), _T("Error creating new thread context: ") + CWinError::GetLastErrorText());
        return 0;
    }
    m_nThreadId = id;
    m_hOwn = handle;
    m_hThread = handle;
    return 1;
}

DWORD WINAPI CThreadContext::ContextProc(void * param)
{
    auto * const context = static_cast<CThreadContext *>(param);
    context->m_nThreadId = GetCurrentThreadId(); // whoever creates the thread may still be busy noting it
    TlsSetValue(CThreadPool::GetThreadCtxTLS(), context);
    CThreadPool::GuardExit(false);
    CallHook(g_pStartThreadProc, context);
    context->Run();
    CallHook(g_pEndThreadProc, context);
    CThreadPool::GuardExit(true);
    return static_cast<DWORD>(context->GetExitCode());
}

void CThreadContext::CallHook(HookProc hook, CThreadContext * context)
{
    try
    {
        if (hook)
        {
            hook(context);
        }
    }
    catch (CException * failure)
    {
        failure->Delete();
        LogError(_T("Unhandled exception in a hook of thread 0x%08X."), GetCurrentThreadId());
    }
    catch (...)
    {
        LogError(_T("Unhandled exception in a hook of thread 0x%08X."), GetCurrentThreadId());
    }
}

/// The thread is about to end: nobody may name it any more.
void CThreadContext::Forget()
{
    m_nThreadId = 0;
    m_hThread = nullptr;
}

void CThreadContext::Run()
{
    for (;;)
    {
        if (!m_startEvent.Lock(INFINITE))
        {
            Forget();
            return;
        }
        ThreadProc const proc = m_pProc.load();
        if (!proc)
        {
            Forget();
            m_exitEvent.SetEvent();
            return;
        }
        m_exitEvent.ResetEvent();
        RunJob(proc);
        m_pProc = nullptr;
        TlsSetValue(CLogManager::GetSessionSlot(), nullptr);
        if (m_bTerminating)
        {
            Forget();
            m_exitEvent.SetEvent();
            return;
        }
        // Told first, parked second: once it is parked the next job may have begun, whose end is not this one.
        m_exitEvent.SetEvent();
        CThreadPool::Park(this);
    }
}

void CThreadContext::RunJob(ThreadProc proc)
{
    try
    {
        m_nExitCode = static_cast<int>(proc(m_pParam));
    }
    catch (CException * failure)
    {
        std::array<WCHAR, 1024> text{};
        failure->GetErrorMessage(text.data(), static_cast<UINT>(text.size() - 1));
        LogError(_T("Unhandled MFC exception in thread 0x%08X: %s."), GetCurrentThreadId(), text.data());
        failure->Delete();
    }
    catch (...)
    {
        m_nExitCode = static_cast<int>(GetLastError());
        LogError(_T("Unhandled exception in thread 0x%08X."), GetCurrentThreadId());
    }
}

int CThreadContext::Start(ThreadProc proc, void * param, int priority)
{
    m_pParam = param;
    m_pProc = proc;
    return SetPriority(priority) && m_exitEvent.ResetEvent() && m_startEvent.SetEvent();
}

int CThreadContext::SetPriority(int priority)
{
    // A job may have set another one by itself. Most don't: no system call for each of them.
    HANDLE const handle = m_hThread.load();
    return GetThreadPriority(handle) == priority || SetThreadPriority(handle, priority);
}

int CThreadContext::WaitForExit(DWORD timeout)
{
    return CKVXBaseApp::IsShuttingDown() ? 1 : m_exitEvent.Lock(timeout);
}

CString CThreadContext::GetDescription(DWORD id) const
{
    CString description;
    CThreadPool::sm_threadMap.Lookup(static_cast<int>(id), description);
    return description;
}

void CThreadContext::AskToEnd()
{
    m_bTerminating = 1;
    m_pProc = nullptr;
    m_startEvent.SetEvent();
}

int CThreadContext::Terminate(DWORD timeout, int force)
{
    HANDLE const handle = m_hOwn;
    if (!m_hThread.load())
    {
        if (handle && CThreadPool::GetCurrentThreadContext() != this)
        {
            WaitForSingleObject(handle, timeout); // it may still be on its way out
        }
        return 1;
    }
    DWORD const id = m_nThreadId.load();
    CString const description = GetDescription(id);
    AskToEnd();
    if (id == GetCurrentThreadId())
    {
        return 0;
    }

    DWORD const waited = WaitForSingleObject(handle, timeout);
    if (waited == WAIT_OBJECT_0)
    {
        Forget();
        return 1;
    }
    if (waited == WAIT_TIMEOUT && force)
    {
        OutputDebugStringW(_T("Forcing terminate thread: "));
        OutputDebugStringW(description);
        if (kvx::EndThread(handle))
        {
            LogWarning(_T("Forced terminate thread 0x%08X %s"), id, description);
        }
        else
        {
            LogError(_T("Unable to force terminate thread 0x%08X %s"), id, description);
        }
        Forget();
        return 0;
    }
    if (m_nThreadId == 0)
    {
        LogWarning(_T("Thread 0x%08X is shutting down but wait failed."), id);
    }
    else
    {
        LogError(_T("Unable to force terminate thread 0x%08X"), id);
    }
    return 0;
}
