/// From a signal to the call of an event watcher's function, against a bare futex hand-over between two threads.
///
/// On all CPUs the scheduler places the threads of either side as it likes, on one CPU or on two, and where an idle CPU
/// is slow to wake (a virtual machine's takes twenty times as long as a switch on one CPU) that alone decides the
/// ratio. So the two are measured apart as well: everything on one CPU, and the signal on one with all others on the
/// other.

#include "FutexWord.h"
#include "Harness.h"

#include "kvx/logging/LogManager.h"
#include "kvx/threads/EventWatcher.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"

#include <memory>
#include <thread>
#include <utility>

namespace
{
using namespace bench;

constexpr double TARGET = 3.0;
constexpr int SET = 31; // handles of one thread; of more, each signal finds another set, which no cache has

/// A signal finds everybody asleep: not the tail of the one before.
void LetThemSettle()
{
    std::this_thread::sleep_for(std::chrono::microseconds(50));
}

/// When the other side has taken what was given, and the way back.
struct Arrival
{
    Clock::time_point time;
    FutexWord back;
};

/// Events that one watcher watches.
class Watched
{
public:
    Watched(int count, DWORD flags) : m_watcher(&Called)
    {
        m_watcher.SetFlags(flags);
        for (int i = 0; i < count; ++i)
        {
            m_events.push_back(std::make_unique<CEvent>(FALSE, TRUE));
            m_watcher.Insert(*m_events.back(), &m_arrival);
        }
    }

    /// Nanoseconds from a signal to the call: the median of so many, at ever other events.
    double Time(int count)
    {
        std::vector<double> times;
        for (int i = 0; i < count; ++i)
        {
            LetThemSettle();
            m_nNext = (m_nNext + 37) % m_events.size();
            auto const start = Clock::now();
            m_events[m_nNext]->SetEvent();
            m_arrival.back.Take();
            times.push_back(std::chrono::duration<double, std::nano>(m_arrival.time - start).count());
        }
        return Median(std::move(times));
    }

private:
    std::vector<std::unique_ptr<CEvent>> m_events;
    std::size_t m_nNext = 0;
    Arrival m_arrival;
    CEventWatcher m_watcher;

    static void Called(void *, void * param)
    {
        auto * const arrival = static_cast<Arrival *>(param);
        arrival->time = Clock::now();
        arrival->back.Give();
    }
};

enum class Place
{
    OneCpu,
    TwoCpus,
    AllCpus,
};

/// All threads that there are.
void PutAll(Place place)
{
    PinAllTo(place == Place::OneCpu ? 0 : place == Place::TwoCpus ? 1 : -1);
    if (place == Place::TwoCpus)
    {
        PinTo(0);
    }
}

double TimeFutex(int count, Place place)
{
    FutexWord word;
    Arrival arrival;
    std::jthread const partner(
        [&]
        {
            if (place == Place::TwoCpus)
            {
                PinTo(1);
            }
            for (int i = 0; i < count; ++i)
            {
                word.Take();
                arrival.time = Clock::now();
                arrival.back.Give();
            }
        });
    std::vector<double> times;
    for (int i = 0; i < count; ++i)
    {
        LetThemSettle();
        auto const start = Clock::now();
        word.Give();
        arrival.back.Take();
        times.push_back(std::chrono::duration<double, std::nano>(arrival.time - start).count());
    }
    return Median(std::move(times));
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const count = options.IsBrief() ? 20 : 500;
    int const rounds = options.IsBrief() ? 1 : 12;
    std::vector<int> const handles = options.IsBrief() ? std::vector{1, 40} : std::vector{1, 31, 10000};
    for (auto const & [place, what] : {std::pair(Place::OneCpu, "one CPU"), std::pair(Place::TwoCpus, "two CPUs"),
                                       std::pair(Place::AllCpus, "all CPUs")})
    {
        PutAll(place);
        for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_ON_WAIT_THREAD})
        {
            for (int const number : handles)
            {
                std::string const name = std::to_string(number) + (number == 1 ? " handle, " : " handles, ") +
                                         (flags ? "on the wait thread, " : "") + what + " : futex";
                if (!options.Wants(name))
                {
                    continue;
                }
                Watched watched(number, flags);
                PutAll(place); // its threads, too
                Compare(
                    {.strName = name, .target = Target::AtMost, .nTarget = number <= SET ? TARGET : 0}, rounds,
                    [&] { return watched.Time(count); }, [&] { return TimeFutex(count, place); });
            }
        }
    }
    CKVXBaseApp::InitShutdown();
    CThreadPool::TerminateAllThreads(10000);
    CLogManager::Terminate();
    return 0;
}
