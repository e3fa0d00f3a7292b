#include "HostEventsProvider.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/text/StringTokenizer.h"
#include "kvx/threads/ThreadPool.h"

#include <algorithm>
#include <utility>

namespace
{
constexpr LPCTSTR TICK = _T("host.tick");
constexpr LPCTSTR LOG_LINE = _T("host.log");
constexpr ULONGLONG TICK_INTERVAL = 1000; // milliseconds
constexpr int LINE_LENGTH_MAX = 10'000;   // characters

SYSTEMTIME GetNow()
{
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return now;
}

CString FormatTime(SYSTEMTIME const & time)
{
    CString text;
    text.Format(_T("%04u-%02u-%02u %02u:%02u:%02u"), UINT{time.wYear}, UINT{time.wMonth}, UINT{time.wDay},
                UINT{time.wHour}, UINT{time.wMinute}, UINT{time.wSecond});
    return text;
}
} // namespace

/// Hands the log's lines over.
class CHostEventsProvider::CLines : public CLogSink
{
public:
    explicit CLines(CHostEventsProvider & owner) : CLogSink(LOG_ALL), m_owner(owner) {}
    void Append(CLogEvent * event) override { m_owner.AddLine(*event); }

private:
    CHostEventsProvider & m_owner;
};

CHostEventsProvider::CHostEventsProvider() : m_publisher(new CMsgPublisher)
{
    m_publisher->SetSubscriberLimit(QUEUE_MESSAGES, QUEUE_BYTES);
}

CHostEventsProvider::~CHostEventsProvider()
{
    CHostEventsProvider::StopProvider();
}

void CHostEventsProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    AddProvider(_T("subscribe"), new _MsgMapEntry<CHostEventsProvider>(this, &CHostEventsProvider::OnSubscribe));
}

int CHostEventsProvider::StopProvider()
{
    m_bStopping = true;
    m_publisher->DropSubscriptions(); // which also frees a thread that is blocked in writing to one
    m_timers.DeleteAllTimers();
    CSingleLock guard(&m_startLock, TRUE);
    m_linesEvent.SetEvent();
    constexpr DWORD LOOK = 20; // milliseconds
    while (!m_linesDone.Lock(LOOK) && !CThreadPool::IsTerminated())
    {
        m_publisher->DropSubscriptions(); // one may just have been on its way
    }
    if (m_sink)
    {
        CLogManager::GetInstance()->UnregisterSink(m_sink.get());
        m_sink = nullptr;
    }
    return 1;
}

void CHostEventsProvider::OnSubscribe(CMsgRequest & request)
{
    CString const events = static_cast<CValueAccessor const &>(request).GetValue(_T("events"));
    bool bTicks = false;
    bool bLines = false;
    CStringTokenizer names(events, _T(","));
    for (CString name; names.GetNextString(name);)
    {
        bTicks = bTicks || name == TICK;
        bLines = bLines || name == LOG_LINE;
        // Nobody can have names made up that stay for ever.
        if (name != TICK && name != LOG_LINE)
        {
            request.SetResponseError(ERROR_INVALID_PARAMETER, _T("There is no event '%s': use %s, %s"), name, TICK,
                                     LOG_LINE);
            return;
        }
    }
    if (!bTicks && !bLines)
    {
        request.SetResponseError(ERROR_INVALID_PARAMETER, _T("The parameter 'events' must name %s, %s or both"), TICK,
                                 LOG_LINE);
        return;
    }
    if (m_bStopping || (bLines && !StartLines()))
    {
        request.GetResponse().SetError(ERROR_OPERATION_ABORTED, nullptr);
        return;
    }
    m_publisher->RegisterSubscription(request, events);
    LogInfo(_T("A subscription to %s"),
            events); // every subscriber hears of itself, and those that have gone are noticed
    if (bTicks)
    {
        StartTicks();
    }
    if (m_bStopping)
    {
        m_publisher->DropSubscriptions();
    }
}

void CHostEventsProvider::Publish(CMsgRequest & event)
{
    event.DiscardResults(1);
    m_publisher->Service(event);
}

void CHostEventsProvider::StartTicks()
{
    CSingleLock guard(&m_tickLock, TRUE);
    if (!m_bTicking)
    {
        m_bTicking = true;
        m_nNextTick = GetTickCount64() + TICK_INTERVAL;
        m_timers.CreateTimer(static_cast<DWORD>(TICK_INTERVAL), &OnTick, this);
    }
}

void CHostEventsProvider::OnTick(void * provider)
{
    static_cast<CHostEventsProvider *>(provider)->Tick();
}

void CHostEventsProvider::Tick()
{
    CMsgRequest event;
    event.SetCommand(TICK);
    {
        CSingleLock guard(&m_tickLock, TRUE);
        event[_T("number")].FromInteger64(static_cast<LONGLONG>(++m_nTicks));
    }
    event[_T("time")] = FormatTime(GetNow());
    Publish(event); // may take its time: the lock isn't held

    CSingleLock guard(&m_tickLock, TRUE);
    if (m_bStopping || !m_publisher->HasSubscriptions())
    {
        m_bTicking = false;
        return;
    }
    // On the beat of the first one; what has been missed isn't made up for.
    ULONGLONG const now = GetTickCount64();
    m_nNextTick = std::max(m_nNextTick + TICK_INTERVAL, now);
    m_timers.CreateTimer(static_cast<DWORD>(m_nNextTick - now), &OnTick, this);
}

/// Lines are gathered from the first subscription on.
bool CHostEventsProvider::StartLines()
{
    CSingleLock guard(&m_startLock, TRUE);
    if (m_sink || m_bStopping)
    {
        return !m_bStopping;
    }
    m_linesDone.ResetEvent();
    if (!CThreadPool::BeginThread(&LinesProc, this, 0))
    {
        m_linesDone.SetEvent();
        return false;
    }
    m_sink = std::make_unique<CLines>(*this);
    CLogManager::GetInstance()->RegisterSink(m_sink.get(), 1);
    return true;
}

unsigned int CHostEventsProvider::LinesProc(void * provider)
{
    auto * const self = static_cast<CHostEventsProvider *>(provider);
    self->m_nLinesThread = GetCurrentThreadId();
    self->PublishLines();
    self->m_linesDone.SetEvent();
    return 0;
}

void CHostEventsProvider::PublishLines()
{
    while (!m_bStopping)
    {
        m_linesEvent.Lock(INFINITE);
        Line line{};
        for (ULONGLONG lost = 0; !m_bStopping && TakeLine(line, lost);)
        {
            if (lost > 0)
            {
                CString text;
                text.Format(_T("%I64u lines were dropped: a subscriber is too slow"), lost);
                PublishLine({'W', GetNow(), text});
            }
            PublishLine(line);
        }
    }
}

/// On the log's thread.
void CHostEventsProvider::AddLine(CLogEvent const & event)
{
    // What publishing itself has to say would be published again, and again.
    if (event.m_nThreadId == m_nLinesThread)
    {
        return;
    }
    {
        CSingleLock guard(&m_linesLock, TRUE);
        if (m_lines.size() == LINES_MAX)
        {
            m_lines.pop_front();
            ++m_nLost;
        }
        m_lines.push_back({event.GetTypeChar(), event.m_time, event.m_strText.Left(LINE_LENGTH_MAX)});
    }
    m_linesEvent.SetEvent();
}

bool CHostEventsProvider::TakeLine(Line & line, ULONGLONG & lost)
{
    CSingleLock guard(&m_linesLock, TRUE);
    if (m_lines.empty())
    {
        return false;
    }
    line = std::move(m_lines.front());
    m_lines.pop_front();
    lost = std::exchange(m_nLost, 0);
    return true;
}

void CHostEventsProvider::PublishLine(Line const & line)
{
    CMsgRequest event;
    event.SetCommand(LOG_LINE);
    event[_T("type")] = CString(line.cType);
    CString time;
    time.Format(_T("%s.%03u"), FormatTime(line.time), UINT{line.time.wMilliseconds});
    event[_T("time")] = time;
    event[_T("text")] = line.strText;
    Publish(event);
}
