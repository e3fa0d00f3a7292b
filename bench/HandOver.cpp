/// Set-and-wait between two threads, against bare futex words.

#include "Harness.h"

#include "kvx/platform/mfc/Afx.h"

#include <array>
#include <atomic>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace
{
using namespace bench;

/// Two auto-reset events.
class Events
{
public:
    void Give(int side) { SetEvent(m_events[static_cast<std::size_t>(side)]); }
    void Take(int side) { WaitForSingleObject(m_events[static_cast<std::size_t>(side)], INFINITE); }

private:
    std::array<CEvent, 2> m_events;
};

/// The same out of nothing but a word a side.
class Words
{
public:
    void Give(int side)
    {
        auto & word = m_words[static_cast<std::size_t>(side)];
        word.store(1, std::memory_order_release);
        ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    void Take(int side)
    {
        auto & word = m_words[static_cast<std::size_t>(side)];
        while (word.exchange(0, std::memory_order_acquire) == 0)
        {
            ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
        }
    }

private:
    struct alignas(64) Word : std::atomic<std::uint32_t>
    {
    };
    std::array<Word, 2> m_words{};
};

/// Nanoseconds from a set to the end of the other thread's wait.
template <class PAIR>
double TimeHandOvers(int count, int theirCpu)
{
    PAIR pair;
    std::jthread const partner(
        [&]
        {
            PinTo(theirCpu);
            for (int i = 0; i < count; ++i)
            {
                pair.Take(0);
                pair.Give(1);
            }
        });
    auto const start = Clock::now();
    for (int i = 0; i < count; ++i)
    {
        pair.Give(0);
        pair.Take(1);
    }
    return Since(start) / (2.0 * count);
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const count = options.IsBrief() ? 20 : 10000;
    int const rounds = options.IsBrief() ? 1 : 24;
    PinTo(0);
    struct Place
    {
        char const * szName;
        int nCpu;
    };
    for (Place const place :
         {Place{"event hand-over, one CPU : futex", 0}, Place{"event hand-over, two CPUs : futex", 1}})
    {
        Compare(
            {.strName = place.szName, .target = Target::AtMost, .nTarget = 1.5}, rounds,
            [&] { return TimeHandOvers<Events>(count, place.nCpu); },
            [&] { return TimeHandOvers<Words>(count, place.nCpu); });
    }
    return 0;
}
