#pragma once

/// The process-wide log, and the helpers that the whole library logs with:
///
///     LogError(_T("Cannot load '%s': %d"), name, code);

#include "kvx/foundation/AutoDelete.h"
#include "kvx/logging/LogLines.h"

#include <atomic>
#include <cstdint>

class CMsgRequest;

/// Calls the immediate sinks at once, and hands the event to the log's own thread, which writes it to the queued sinks.
/// Where no immediate sink wants the text, it is that thread too that formats. Nothing is logged while no queued sink
/// is registered. Nothing limits the queue.
///
/// Threads: any thread may log. Sinks are called one at a time, under the lock of the sink lists; the order of the time
/// stamps is the order of the lines. A slow queued sink holds up only those who log through immediate sinks or change
/// the lists.
class KVX_API CLogManager : public CAutoDelete
{
public:
    CLogManager(CLogManager const &) = delete;
    CLogManager & operator=(CLogManager const &) = delete;
    virtual ~CLogManager();

    static CLogManager * GetInstance() { return &sm_instance; }

    /// Never fails its caller: a format that can't be carried out is logged as "LOG ERROR: " and the format. With a
    /// source object its address stands in front of the text.
    void LogEvent(CObject const * source, DWORD type, LPCTSTR format, FormatArgs const & args);
    void LogEvent(DWORD type, LPCTSTR format, FormatArgs const & args) { LogEvent(nullptr, type, format, args); }
    /// Command and parameters, at the type of information. By contract their text is a format: a per-cent sign in a
    /// value is taken for a directive, and values stand there as they are, line ends and secrets included.
    void LogRequestParams(CMsgRequest & request);

    /// The manager owns the sink from now on. Immediate sinks see every event, whatever their mask, before its built
    /// text is made.
    void RegisterSink(CLogSink * sink, int queued);
    /// The caller owns the sink again; one that isn't registered is no error.
    void UnregisterSink(CLogSink * sink);
    /// Sets the mask of every sink.
    void SetEventFlags(DWORD mask);

    /// A number of the calling thread that its events carry: sessions set it, and it is cleared behind every job.
    DWORD GetThreadSessionId() const;
    void SetThreadSessionId(DWORD id);
    /// Whether the log's own thread has been started.
    bool HasThread() const { return m_hThread.load() != nullptr; }
    static DWORD GetSessionSlot() { return sm_instance.m_nSessionSlot; }

    /// Waits until all that has been logged so far is written to the queued sinks: 0 if that takes longer than
    /// `timeout` milliseconds, and at once on the log's own thread or behind Terminate.
    int Flush(DWORD timeout);
    /// The application's last call: ends the log's thread, shuts the sinks down and deletes them. Events that are still
    /// queued are dropped: whoever wants them calls Flush before. There is no way back. Called by a sink on the log's
    /// own thread it takes effect behind it. Without it, a program's end still writes what is queued to files, consoles
    /// and the debugger, for a second at most; sinks of the application, whose data may have gone, see nothing of it.
    static void Terminate();

private:
    static CLogManager sm_instance;

    enum class State : LONG
    {
        Runs,
        Leaves, ///< the program ends: what is queued is still written
        Ended,
    };
    using RequestFormatter = CString (*)(CMsgRequest & request);

    // What logging threads only read, what they write, and what the log's thread works with lie apart: no line of the
    // log waits for memory that it has no business with.
    static constexpr std::size_t APART = 64;

    std::atomic<State> m_state{State::Runs};
    std::atomic<LONG> m_nImmediate{0};
    std::atomic<LONG> m_nQueued{0};
    DWORD m_nSessionSlot;
    DWORD m_nProcessId = GetCurrentProcessId(); // a forked one doesn't have the log's thread
    std::atomic<DWORD> m_nThreadId{0};          // of the log's thread while it runs
    bool m_bEndsItself = false;                 // that thread has called Terminate
    std::atomic<HANDLE> m_hThread{nullptr};
    RequestFormatter m_pFormatRequest;
    CCriticalSection m_startLock; // for the start of the log's thread

    alignas(APART) CCriticalSection m_queueLock; // for what follows
    bool m_bSleeps = false;                      // the log's thread waits for the event
    std::uint64_t m_nLogged = 0;                 // lines, since the start
    std::uint64_t m_nTaken = 0;                  // of these, in the hands of the log's thread or written
    std::uint64_t m_nWritten = 0;
    std::uint64_t m_nFlushed = 0; // somebody waits until so many are written
    kvx::LogLines m_queue;

    alignas(APART) CCriticalSection m_sinkLock; // the lists, and every call of a sink; taken before that of the queue
    CObList m_immediateSinks{10};
    CObList m_queuedSinks{10};
    // In the hands of the log's thread: all that was queued at its last look, for each look is one that a logging
    // thread may have to wait for.
    kvx::LogLines m_inHand;
    CEvent m_queueEvent;
    CEvent m_flushedEvent{FALSE, TRUE}; // manual

    explicit CLogManager(RequestFormatter formatRequest);
    static DWORD WINAPI EventQueueProc(void * manager);
    void RunEventQueue();
    bool IsHeard() const { return m_state == State::Runs && m_nQueued > 0; }
    bool IsLogThread() const { return m_nThreadId == GetCurrentThreadId(); }
    void DeleteSinks();
    bool StartQueueThread();
    void Enqueue(DWORD type, kvx::LogCall const & call);
    void WriteEvent(CLogEvent & event);
    void CountSinks();
};

template <class... T>
void LogInfo(LPCTSTR format, T const &... values)
{
    CLogManager::GetInstance()->LogEvent(LOG_INFORMATION, format, FormatArgStore<sizeof...(T)>(values...));
}

template <class... T>
void LogWarning(LPCTSTR format, T const &... values)
{
    CLogManager::GetInstance()->LogEvent(LOG_WARNING, format, FormatArgStore<sizeof...(T)>(values...));
}

template <class... T>
void LogError(LPCTSTR format, T const &... values)
{
    CLogManager::GetInstance()->LogEvent(LOG_ERROR, format, FormatArgStore<sizeof...(T)>(values...));
}

template <class... T>
void LogSourceWarning(CObject const * source, LPCTSTR format, T const &... values)
{
    CLogManager::GetInstance()->LogEvent(source, LOG_WARNING, format, FormatArgStore<sizeof...(T)>(values...));
}

template <class... T>
void LogSourceError(CObject const * source, LPCTSTR format, T const &... values)
{
    CLogManager::GetInstance()->LogEvent(source, LOG_ERROR, format, FormatArgStore<sizeof...(T)>(values...));
}
