/// Set-and-wait between two threads, against bare futex words.

#include "FutexWord.h"
#include "Harness.h"

#include "kvx/platform/mfc/Afx.h"

#include <array>
#include <thread>

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
    void Give(int side) { m_words[static_cast<std::size_t>(side)].Give(); }
    void Take(int side) { m_words[static_cast<std::size_t>(side)].Take(); }

private:
    std::array<FutexWord, 2> m_words;
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
