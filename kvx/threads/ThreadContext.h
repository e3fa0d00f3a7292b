#pragma once

/// A pooled thread: an operating-system thread that parks itself when its job is done, and waits for the next one.

#include "kvx/foundation/Dictionary.h"

#include <atomic>

/// Made and kept by CThreadPool. Start gives a parked thread a job; nothing retires a parked thread but Terminate.
///
/// Threads: one owner at a time starts and waits; the context data and the values belong to the job and its owner.
/// Values stay for the thread's next job.
class KVX_API CThreadContext : public CObject
{
public:
    using ThreadProc = unsigned int (*)(void *);
    using HookProc = int(WINAPI *)(void *);

    CThreadContext();
    CThreadContext(CThreadContext const &) = delete;
    CThreadContext & operator=(CThreadContext const &) = delete;
    ~CThreadContext() override;

    /// Makes the thread, which parks at once; 0 with a line in the log.
    int Create();
    /// Gives a parked thread its job, at a Win32 thread priority (0 is normal). 0 if any step fails.
    int Start(ThreadProc proc, void * param, int priority);
    /// Ends the thread: at once when it is parked, behind its job when it has one. 1 if it ended within `timeout`
    /// milliseconds or had ended before. With `force` a thread that hasn't is killed, and the result is 0. The calling
    /// thread itself is neither waited for nor killed: it ends behind its job, and the result is 0.
    int Terminate(DWORD timeout, int force);
    /// The first half of Terminate: tells the thread to end, and doesn't wait.
    void AskToEnd();
    /// Waits for the end of the job, `timeout` milliseconds; one waiter takes one end. While the library shuts down it
    /// gives 1 at once.
    int WaitForExit(DWORD timeout);
    int SetPriority(int priority);

    void SetThreadContextData(void * data) { m_pData = data; }
    void * GetThreadContextData() const { return m_pData; }
    void SetValue(LPCTSTR name, CStringValue const & value) { m_values.CreateValue(name) = value; }
    CString GetValue(LPCTSTR name) const { return m_values.GetValue(name); }
    int HasValue(LPCTSTR name) const { return m_values.HasValue(name); }

    /// 0 and null once the thread has ended.
    DWORD GetThreadId() const { return m_nThreadId.load(); }
    HANDLE GetThreadHandle() const { return m_hThread.load(); }
    /// Whether the thread has ended or has been told to: it takes no further job.
    bool IsEnding() const { return m_bTerminating.load() || !m_hThread.load(); }
    /// What the last job returned, or the last error after an exception that was no CException.
    int GetExitCode() const { return m_nExitCode.load(); }
    HANDLE GetExitHandle() { return m_exitEvent; }
    HANDLE GetActiveHandle() { return m_startEvent; }

    /// Called with the context on each operating-system thread of the pool, once before its first job and once at its
    /// end. To be set before the first thread starts. What a hook throws goes to the log.
    static void SetStartThreadProc(HookProc proc) { g_pStartThreadProc = proc; }
    static void SetEndThreadProc(HookProc proc) { g_pEndThreadProc = proc; }

private:
    static HookProc g_pStartThreadProc;
    static HookProc g_pEndThreadProc;

    std::atomic<DWORD> m_nThreadId{0};
    std::atomic<HANDLE> m_hThread{nullptr}; // what is shown: null when the thread is about to end
    HANDLE m_hOwn = nullptr;                // what is waited for, as long as the context lives
    std::atomic<ThreadProc> m_pProc{nullptr};
    void * m_pParam = nullptr;
    std::atomic<int> m_bTerminating{0};
    std::atomic<int> m_nExitCode{0};
    CEvent m_startEvent;
    CEvent m_exitEvent;
    void * m_pData = nullptr;
    CDictionary m_values;

    static DWORD WINAPI ContextProc(void * context);
    void Run();
    void RunJob(ThreadProc proc);
    void Forget();
    static void CallHook(HookProc hook, CThreadContext * context);
    CString GetDescription(DWORD id) const;
};
