#include "AtWork.h"

#include <sys/wait.h>
#include <unistd.h>

/// A child that has none of its parent's threads, and returns from main as well.
TEST(Exit, InAForkedChild)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            PutToWork();
            if (pid_t const child = ::fork())
            {
                int status = 0;
                ::waitpid(child, &status, 0);
                std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 99);
            }
            Leave(nullptr);
        },
        testing::ExitedWithCode(7), "the output");
}
