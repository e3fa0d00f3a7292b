#pragma once

#include "kvx/events/MsgPublisher.h"
#include "kvx/logging/LogSink.h"
#include "kvx/threads/TimerQueue.h"

#include <atomic>
#include <deque>
#include <memory>

/// `host.subscribe`: subscribes the connection that the command comes on to `events`, names with commas between them:
///
///   host.tick  each second while somebody is subscribed. Parameters: `number`, which counts them, and `time`
///   host.log   a line of this process's log. Parameters: `type` (I, W, E, V), `time` with milliseconds, `text`
///
/// Times are local. Events are published on threads of their own, and each subscriber has a queue: one that stops
/// reading is dropped soon after that is full, and holds up neither other subscribers for long nor those who log. At
/// most LINES_MAX lines wait to be published; then the oldest are dropped, and an event of the type W tells how many.
class CHostEventsProvider : public CMsgProvider
{
public:
    CHostEventsProvider();
    ~CHostEventsProvider() override;
    void RegisterProviderMap() override;
    /// Drops all subscriptions. Later ones are refused with error 995.
    int StopProvider() override;

private:
    class CLines;
    struct Line
    {
        WCHAR cType;
        SYSTEMTIME time;
        CString strText;
    };
    static constexpr std::size_t LINES_MAX = 1000;
    static constexpr DWORD QUEUE_MESSAGES = 10'000; // of a subscriber
    static constexpr ULONGLONG QUEUE_BYTES = ULONGLONG{4} << 20;

    kvx::RefPtr<CMsgPublisher> m_publisher;
    std::atomic<bool> m_bStopping{false};

    CCriticalSection m_tickLock; // the next three
    bool m_bTicking = false;
    ULONGLONG m_nNextTick = 0;
    ULONGLONG m_nTicks = 0;

    CCriticalSection m_startLock;
    std::unique_ptr<CLines> m_sink; // once somebody wants lines; the log refers to it
    CCriticalSection m_linesLock;   // the next two
    std::deque<Line> m_lines;
    ULONGLONG m_nLost = 0;
    CEvent m_linesEvent{FALSE, FALSE};
    CEvent m_linesDone{TRUE, TRUE}; // manual: no thread publishes lines
    std::atomic<DWORD> m_nLinesThread{0};

    CTimerQueue m_timers; // the last: its function uses the others

    void OnSubscribe(CMsgRequest & request);
    void Publish(CMsgRequest & event);

    void StartTicks();
    static void OnTick(void * provider);
    void Tick();

    bool StartLines();
    static unsigned int LinesProc(void * provider);
    void PublishLines();
    void AddLine(CLogEvent const & event);
    bool TakeLine(Line & line, ULONGLONG & lost);
    void PublishLine(Line const & line);
};
