#pragma once

#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

/// Runs one function in so many threads at once, to their ends; it gets the thread's number.
inline void RunThreads(std::size_t nThreads, std::function<void(std::size_t)> const & function)
{
    std::vector<std::thread> threads;
    for (std::size_t nThread = 0; nThread < nThreads; ++nThread)
    {
        threads.emplace_back(function, nThread);
    }
    for (std::thread & thread : threads)
    {
        thread.join();
    }
}
