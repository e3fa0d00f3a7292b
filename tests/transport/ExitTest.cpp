#include "tests/support/Patience.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

/// A program that returns from main in the middle of everything.
TEST(Exit, WhateverIsStillAtWork)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    enum class By
    {
        Main,
        Pool,
        Both, // main comes while a thread is at it
        Fork, // of the parent's threads, the child has none
    };
    for (By const by : {By::Main, By::Pool, By::Both, By::Fork})
    {
        EXPECT_EXIT(
            {
                CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
                dispatcher.RegisterProvider(
                    _T("svc.echo"), [](CMsgRequest &, void *) {}, nullptr);
                dispatcher.RegisterProvider(
                    _T("svc.slow"), [](CMsgRequest &, void *) { Sleep(INFINITE); }, nullptr);
                auto * const listener =
                    static_cast<CMsgTCPListener *>(dispatcher.RegisterListener(_T(""), _T("tcp:127.0.0.1:0"), 1));
                listener->WaitUntilListening(PATIENCE);
                CString config;
                config.Format(_T("forward:relay:tcp:127.0.0.1:%u"), listener->GetListeningPort());
                dispatcher.RegisterProvider(_T("far"), config, 1);
                CMsgRequest request;
                int const served = request.Execute(_T("far.svc.echo")).Succeeded();
                request.Send(_T("far.svc.slow"));
                request.Notify(_T("svc.slow"));
                std::fputs(served ? "the output" : "no answer", stderr);
                auto const leave = [](void *) -> unsigned int { std::exit(7); };
                if (by == By::Pool || by == By::Both)
                {
                    CThreadPool::BeginThread(leave, nullptr, 0);
                    request.Execute(_T("far.svc.slow"));
                    Sleep(by == By::Pool ? INFINITE : 300);
                }
                if (pid_t const child = by == By::Fork ? ::fork() : 0)
                {
                    int status = 0;
                    ::waitpid(child, &status, 0);
                    std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 99);
                }
                leave(nullptr);
            },
            testing::ExitedWithCode(7), "the output");
    }
}
