#include "kvx/logging/LogManager.h"

#include "kvx/platform/ExitProc.h"

#include <typeinfo>
#include <utility>

namespace
{
/// Calls a function; what it throws is forgotten.
template <class CALL>
void Quietly(CALL const & call)
{
    try
    {
        call();
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
}

constexpr DWORD EXIT_PATIENCE = 1000; // milliseconds

/// Whether a sink needs nothing but itself.
bool StandsAlone(CLogSink const & sink)
{
    std::type_info const & type = typeid(sink);
    return type == typeid(CFileLog) || type == typeid(CConsoleLog) || type == typeid(CDebugLog);
}
} // namespace

CLogManager::CLogManager(RequestFormatter formatRequest) : m_nSessionSlot(TlsAlloc()), m_pFormatRequest(formatRequest)
{
    RegisterAutoDelete(m_immediateSinks);
    RegisterAutoDelete(m_queuedSinks);
}

CLogManager::~CLogManager()
{
    // Without a Terminate the log's thread may still run. It leaves when it has written what is queued, and must not
    // find members that have gone: one that hangs in a sink is ended.
    if (m_state == State::Runs)
    {
        m_state = State::Leaves;
    }
    m_queueEvent.SetEvent();
    if (HANDLE const thread = m_hThread.exchange(nullptr))
    {
        bool const bAnothers = m_nProcessId == GetCurrentProcessId() && !IsLogThread();
        if (bAnothers && WaitForSingleObject(thread, EXIT_PATIENCE) == WAIT_TIMEOUT)
        {
            m_state = State::Ended;
            kvx::EndThread(thread);
        }
        CloseHandle(thread);
        if (bAnothers && m_state == State::Leaves)
        {
            // Where the system has ended the thread first, as Windows does before it tells a DLL, some are left.
            RunEventQueue();
        }
    }
    m_state = State::Ended;
    PerformAutoDelete(nullptr, 0);
    TlsFree(m_nSessionSlot);
}

void CLogManager::LogEvent(CObject const * source, DWORD type, LPCTSTR format, FormatArgs const & args)
{
    if (!IsHeard())
    {
        return;
    }
    // Whatever happens in here, logging never fails its caller, nor changes what the caller takes for the last error.
    DWORD const lastError = GetLastError();
    Quietly(
        [&]
        {
            if (m_hThread || StartQueueThread())
            {
                Enqueue(type, {source, format, args});
            }
        });
    SetLastError(lastError);
}

void CLogManager::Enqueue(DWORD type, kvx::LogCall const & call)
{
    CLogEvent event;
    event.m_nType = type;
    event.m_nThreadId = GetCurrentThreadId();
    event.m_nSessionId = GetThreadSessionId();
    kvx::KeepableCall const kept(call);
    bool const bImmediate = m_nImmediate > 0;
    bool const bKept = kept.GetSize() > 0 && !bImmediate;
    if (!bKept)
    {
        event.m_strText = call.Format();
    }
    // The time is taken under the lock of the queue, so that time stamps are in the order of the queue. Immediate sinks
    // see the stamped event before the queue does.
    CSingleLock sinks(&m_sinkLock, bImmediate);
    CSingleLock guard(&m_queueLock, TRUE);
    GetLocalTime(&event.m_time);
    if (bImmediate)
    {
        for (POSITION pos = m_immediateSinks.GetHeadPosition(); pos;)
        {
            static_cast<CLogSink *>(m_immediateSinks.GetNext(pos))->Append(&event);
        }
    }
    bKept ? m_queue.Add(event, kept) : m_queue.Add(event);
    ++m_nLogged;
    bool const bSlept = std::exchange(m_bSleeps, false);
    guard.Unlock();
    if (bSlept)
    {
        m_queueEvent.SetEvent();
    }
}

bool CLogManager::StartQueueThread()
{
    CSingleLock guard(&m_startLock, TRUE);
    if (!m_hThread && m_state == State::Runs)
    {
        // What is queued when the program ends is written by the thread itself as long as that is there.
        kvx::RunBeforeThreadsGo([] { sm_instance.Flush(EXIT_PATIENCE); });
        DWORD id = 0;
        m_hThread = CreateThread(nullptr, 0, &EventQueueProc, this, 0, &id);
    }
    return m_hThread != nullptr;
}

DWORD WINAPI CLogManager::EventQueueProc(void * manager)
{
    auto & self = *static_cast<CLogManager *>(manager);
    self.RunEventQueue();
    {
        // Nobody writes any more: whoever waits for that is told.
        CSingleLock guard(&self.m_queueLock, TRUE);
        self.m_flushedEvent.SetEvent();
    }
    self.m_nThreadId = 0;
    if (self.m_bEndsItself)
    {
        self.DeleteSinks();
    }
    return 0;
}

void CLogManager::RunEventQueue()
{
    m_nThreadId = GetCurrentThreadId();
    for (CLogEvent event; m_state != State::Ended;)
    {
        for (; !m_inHand.IsEmpty(); m_inHand.RemoveFirst())
        {
            // Whatever a line comes to, the log goes on.
            Quietly(
                [&]
                {
                    m_inHand.Get(event);
                    WriteEvent(event);
                });
        }
        m_inHand.Clear();
        CSingleLock guard(&m_queueLock, TRUE);
        if (m_state == State::Ended)
        {
            return; // some of what was in hand may have been dropped
        }
        bool const bWaitedFor = m_nWritten < m_nFlushed;
        m_nWritten = m_nTaken;
        if (bWaitedFor && m_nWritten >= m_nFlushed)
        {
            m_flushedEvent.SetEvent();
        }
        m_inHand.Swap(m_queue);
        m_nTaken = m_nLogged;
        if (!m_inHand.IsEmpty())
        {
            continue;
        }
        if (m_state == State::Leaves)
        {
            return; // looked at under the lock: what came before the wish to leave would be in the queue
        }
        m_bSleeps = true;
        guard.Unlock();
        if (!m_queueEvent.Lock())
        {
            return;
        }
    }
}

int CLogManager::Flush(DWORD timeout)
{
    CSingleLock guard(&m_queueLock, TRUE);
    if (m_state != State::Runs || IsLogThread())
    {
        return 0;
    }
    std::uint64_t const logged = m_nLogged;
    if (m_nWritten < logged)
    {
        m_nFlushed = logged;
        m_flushedEvent.ResetEvent();
        guard.Unlock();
        if (!m_flushedEvent.Lock(timeout))
        {
            return 0;
        }
        guard.Lock();
    }
    return m_nWritten >= logged;
}

void CLogManager::WriteEvent(CLogEvent & event)
{
    CSingleLock guard(&m_sinkLock, TRUE);
    if (m_state == State::Ended)
    {
        return;
    }
    event.BuildText();
    for (POSITION pos = m_queuedSinks.GetHeadPosition(); pos;)
    {
        auto * const sink = static_cast<CLogSink *>(m_queuedSinks.GetNext(pos));
        if (!sink->IsActive(event.m_nType) || (m_state == State::Leaves && !StandsAlone(*sink)))
        {
            continue;
        }
        // A sink that fails loses this line; the others still get it.
        Quietly([&] { sink->Append(&event); });
    }
}

void CLogManager::LogRequestParams(CMsgRequest & request)
{
    if (!IsHeard())
    {
        return;
    }
    LogEvent(LOG_INFORMATION, m_pFormatRequest(request), FormatArgs());
}

void CLogManager::CountSinks()
{
    m_nImmediate = static_cast<LONG>(m_immediateSinks.GetCount());
    m_nQueued = static_cast<LONG>(m_queuedSinks.GetCount());
}

void CLogManager::RegisterSink(CLogSink * sink, int queued)
{
    CSingleLock guard(&m_sinkLock, TRUE);
    (queued ? m_queuedSinks : m_immediateSinks).AddTail(sink);
    CountSinks();
}

void CLogManager::UnregisterSink(CLogSink * sink)
{
    CSingleLock guard(&m_sinkLock, TRUE);
    for (CObList * const list : {&m_queuedSinks, &m_immediateSinks})
    {
        if (POSITION const pos = list->Find(sink))
        {
            list->RemoveAt(pos);
            break;
        }
    }
    CountSinks();
}

void CLogManager::SetEventFlags(DWORD mask)
{
    CSingleLock guard(&m_sinkLock, TRUE);
    for (CObList * const list : {&m_queuedSinks, &m_immediateSinks})
    {
        for (POSITION pos = list->GetHeadPosition(); pos;)
        {
            static_cast<CLogSink *>(list->GetNext(pos))->SetActive(mask);
        }
    }
}

DWORD CLogManager::GetThreadSessionId() const
{
    return static_cast<DWORD>(reinterpret_cast<UINT_PTR>(TlsGetValue(m_nSessionSlot)));
}

void CLogManager::SetThreadSessionId(DWORD id)
{
    TlsSetValue(m_nSessionSlot, reinterpret_cast<void *>(static_cast<UINT_PTR>(id)));
}

void CLogManager::Terminate()
{
    CLogManager & self = sm_instance;
    self.m_state = State::Ended;
    self.m_queueEvent.SetEvent();
    if (self.IsLogThread())
    {
        self.m_bEndsItself = true; // the sink that has called is still inside: the thread's last step does the rest
        return;
    }
    if (HANDLE const thread = self.m_hThread.exchange(nullptr))
    {
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
    }
    self.DeleteSinks();
}

void CLogManager::DeleteSinks()
{
    CSingleLock guard(&m_sinkLock, TRUE);
    for (CObList * const list : {&m_immediateSinks, &m_queuedSinks})
    {
        for (POSITION pos = list->GetHeadPosition(); pos;)
        {
            static_cast<CLogSink *>(list->GetNext(pos))->ShutDown();
        }
    }
    PerformAutoDelete(nullptr, 0);
    CountSinks();
}
