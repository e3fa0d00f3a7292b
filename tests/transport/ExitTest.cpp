#include "AtWork.h"

#include "kvx/threads/ThreadPool.h"

/// A program that returns from main in the middle of everything.
TEST(Exit, WhateverIsStillAtWork)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    enum class By
    {
        Main,
        Pool,
        Both, // main comes while a thread is at it
    };
    for (By const by : {By::Main, By::Pool, By::Both})
    {
        EXPECT_EXIT(
            {
                PutToWork();
                if (by != By::Main)
                {
                    CThreadPool::BeginThread(&Leave, nullptr, 0);
                    CMsgRequest().Execute(_T("far.svc.slow"));
                    Sleep(by == By::Pool ? INFINITE : 300);
                }
                Leave(nullptr);
            },
            testing::ExitedWithCode(7), "the output");
    }
}
