#include "kvx/logging/LogManager.h"

#include "kvx/foundation/ValueAccessor.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/platform/ExitProc.h"

#include <array>
#include <span>
#include <typeinfo>
#include <utility>

namespace
{
CString FormatEvent(CObject const * source, LPCTSTR format, FormatArgs const & args)
{
    CString text;
    try
    {
        text.FormatV(format, args);
    }
    catch (CException * failure)
    {
        failure->Delete();
        text = CString(_T("LOG ERROR: ")) + (format ? format : _T("<EMPTY FORMAT STRING>"));
    }
    if (source)
    {
        CString prefixed;
        prefixed.Format(_T("[%08X] %s"), source, text);
        return prefixed;
    }
    return text;
}

constexpr DWORD EXIT_PATIENCE = 1000; // milliseconds

/// Whether a sink needs nothing but itself.
bool StandsAlone(CLogSink const & sink)
{
    std::type_info const & type = typeid(sink);
    return type == typeid(CFileLog) || type == typeid(CConsoleLog) || type == typeid(CDebugLog);
}
} // namespace

CLogManager::CLogManager() : m_queueEvent(FALSE, TRUE), m_nSessionSlot(TlsAlloc())
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
    if (m_state != State::Runs || m_nQueued == 0)
    {
        return;
    }
    // Whatever happens in here, logging never fails its caller, nor changes what the caller takes for the last error.
    DWORD const lastError = GetLastError();
    try
    {
        if (m_hThread || StartQueueThread())
        {
            Enqueue(type, FormatEvent(source, format, args));
        }
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
    SetLastError(lastError);
}

CLogEvent * CLogManager::NewEvent()
{
    auto * event = static_cast<CLogEvent *>(m_events.Allocate());
    if (!event)
    {
        event = new CLogEvent;
        m_events.Insert(event, 1);
    }
    return event;
}

void CLogManager::Enqueue(DWORD type, CString && text)
{
    // The time is taken under the lock of the queue, so that time stamps are in the order of the queue. Immediate sinks
    // see the stamped event before the queue does.
    CSingleLock sinks(&m_sinkLock, m_nImmediate > 0);
    CSingleLock guard(m_events, TRUE);
    CLogEvent * const event = NewEvent();
    std::swap(event->m_strText, text); // what it held goes when the locks are given back
    event->m_nType = type;
    event->m_nThreadId = GetCurrentThreadId();
    event->m_nSessionId = GetThreadSessionId();
    GetLocalTime(&event->m_time);
    if (sinks.IsLocked())
    {
        try
        {
            for (POSITION pos = m_immediateSinks.GetHeadPosition(); pos;)
            {
                static_cast<CLogSink *>(m_immediateSinks.GetNext(pos))->Append(event);
            }
        }
        catch (...)
        {
            m_events.Return(event);
            throw;
        }
    }
    bool const bWasEmpty = m_queue.IsEmpty();
    m_queue.AddTail(event);
    ++m_nUnwritten;
    guard.Unlock();
    if (bWasEmpty)
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
    while (m_queueEvent.Lock(INFINITE) && m_state != State::Ended)
    {
        for (; m_nInHandWritten < m_nInHand; ++m_nInHandWritten)
        {
            WriteEvent(m_inHand[m_nInHandWritten]);
        }
        CSingleLock guard(m_events, TRUE);
        m_nUnwritten -= m_nInHand;
        for (CLogEvent * const event : std::span(m_inHand).first(std::exchange(m_nInHand, 0)))
        {
            m_events.Return(event);
        }
        if (m_bFlushing && m_nUnwritten == 0)
        {
            m_bFlushing = false;
            m_flushedEvent.SetEvent();
        }
        m_nInHandWritten = 0;
        while (m_nInHand < m_inHand.size() && !m_queue.IsEmpty())
        {
            m_inHand[m_nInHand++] = static_cast<CLogEvent *>(m_queue.RemoveHead());
        }
        if (m_nInHand == 0 && m_state == State::Leaves)
        {
            return; // looked at under the lock: what came before the wish to leave would be in the queue
        }
        if (m_nInHand == 0 && !m_bFlushing)
        {
            m_queueEvent.ResetEvent();
            if (m_state != State::Runs)
            {
                m_queueEvent.SetEvent(); // the one that came with the state may have been the one just taken back
            }
        }
    }
}

int CLogManager::Flush(DWORD timeout)
{
    {
        CSingleLock guard(m_events, TRUE);
        if (m_nUnwritten == 0)
        {
            return 1;
        }
        if (m_state != State::Runs || IsLogThread())
        {
            return 0;
        }
        m_bFlushing = true;
        m_flushedEvent.ResetEvent();
    }
    m_queueEvent.SetEvent(); // the thread may be waiting with the last of them still in its hands
    return m_flushedEvent.Lock(timeout);
}

void CLogManager::WriteEvent(CLogEvent * event)
{
    CSingleLock guard(&m_sinkLock, TRUE);
    if (m_state == State::Ended)
    {
        return;
    }
    event->BuildText();
    for (POSITION pos = m_queuedSinks.GetHeadPosition(); pos;)
    {
        auto * const sink = static_cast<CLogSink *>(m_queuedSinks.GetNext(pos));
        if (!sink->IsActive(event->m_nType) || (m_state == State::Leaves && !StandsAlone(*sink)))
        {
            continue;
        }
        // A sink that fails loses this line; the others still get it, and the log goes on.
        try
        {
            sink->Append(event);
        }
        catch (CException * failure)
        {
            failure->Delete();
        }
        catch (...)
        {
        }
    }
}

void CLogManager::LogRequestParams(CMsgRequest & request)
{
    CString text = _T("Command: ") + request.GetCommand();
    CString name;
    CString value;
    CString line;
    for (POSITION pos = request.GetStartParamPosition(); pos;)
    {
        request.GetNextParam(pos, name, value);
        line.Format(_T("\n    %s: %s"), name, value);
        text += line;
    }
    LogEvent(LOG_INFORMATION, text, FormatArgs());
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
