#pragma once

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

inline bool IsAsleep(unsigned nThread)
{
    std::ifstream stat("/proc/" + std::to_string(nThread) + "/stat");
    std::string strText;
    std::getline(stat, strText);
    auto const nEnd = strText.rfind(')');
    return nEnd != strText.npos && strText[nEnd + 2] == 'S';
}

/// Returns when the threads sleep in the kernel. A single look could meet one that sleeps on a lock which another of
/// them has: so all have to be found asleep twice in a row.
inline void WaitUntilAsleep(std::vector<unsigned> const & threads)
{
    for (int nQuiet = 0; nQuiet < 2;)
    {
        nQuiet = std::ranges::all_of(threads, IsAsleep) ? nQuiet + 1 : 0;
        std::this_thread::yield();
    }
}
