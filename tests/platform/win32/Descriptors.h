#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

/// How many descriptors the process has open.
inline std::size_t CountDescriptors()
{
    std::filesystem::directory_iterator const all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// Opens and closes sockets as fast as it can: a descriptor that was closed too early is in use again at once, and a
/// call that hits it disturbs the byte in it.
class Churn
{
public:
    ~Churn()
    {
        m_bStop = true;
        m_thread.join();
        EXPECT_EQ(m_nDisturbed, 0);
    }

private:
    void Run()
    {
        while (!m_bStop)
        {
            int pair[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
                continue;
            char c = 'k';
            bool const bWhole = ::send(pair[0], &c, 1, MSG_NOSIGNAL) == 1 && sched_yield() == 0 &&
                                ::recv(pair[1], &c, 1, 0) == 1 && c == 'k' &&
                                ::recv(pair[1], &c, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
            if (!bWhole)
                ++m_nDisturbed;
            close(pair[0]);
            close(pair[1]);
        }
    }

    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_nDisturbed{0};
    std::thread m_thread{[this] { Run(); }};
};
