#pragma once

#include <fstream>
#include <string>
#include <thread>

/// Returns when the thread (of this process, or the only one of another) sleeps in the kernel.
inline void WaitUntilAsleep(unsigned nThread)
{
    for (char cState = 0; cState != 'S';)
    {
        std::this_thread::yield();
        std::ifstream stat("/proc/" + std::to_string(nThread) + "/stat");
        std::string strText;
        std::getline(stat, strText);
        auto const nEnd = strText.rfind(')');
        cState = nEnd == strText.npos ? 'S' : strText[nEnd + 2];
    }
}
