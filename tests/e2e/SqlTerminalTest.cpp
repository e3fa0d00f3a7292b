#include "SqlService.h"

#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace
{
using testing::HasSubstr;

TEST_F(Sql, TerminalEditsLinesAndCtrlCGivesUp)
{
    Serve();
    EXPECT_EQ(CodeOf("create table t(a)"), 0);
    int terminal = -1;
    pid_t const pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0)
    {
        setenv("XDG_DATA_HOME", m_folder.c_str(), 1);
        setenv("TERM", "xterm", 1);
        execl(GetKvx().c_str(), "kvx", "sql", m_service->strAddress.c_str(), "db", nullptr);
        _exit(127);
    }
    auto const isReadable = [&]
    {
        pollfd wait{terminal, POLLIN, 0};
        return poll(&wait, 1, 10'000) > 0;
    };
    auto const expect = [&](std::string_view what)
    {
        std::string text;
        for (char c = 0; text.find(what) == text.npos && isReadable() && read(terminal, &c, 1) == 1;)
        {
            text += c;
        }
        return text;
    };
    // The prompt is there a moment before keys are taken one by one.
    auto const expectPrompt = [&]
    {
        std::string const text = expect("sql> ");
        termios mode{};
        EXPECT_TRUE(Becomes([&] { return tcgetattr(terminal, &mode) == 0 && !(mode.c_lflag & ISIG); }));
        return text;
    };
    auto const type = [&](std::string_view keys)
    { EXPECT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size())); };
    expectPrompt();
    type("select 'a;\r");
    expect("...> ");
    type("b' as x;\r");
    EXPECT_THAT(expectPrompt(), HasSubstr("a;\\nb"));
    type("select 'half\x03");
    expectPrompt();
    type("insert into t with recursive r(x) as (select 1 union all select x + 1 from r) select max(x) from r;\r");
    EXPECT_TRUE(Becomes([&] { return IsHeldUp("insert into t values(1)"); })); // it is under way
    type("\x03");
    EXPECT_THAT(expectPrompt(), HasSubstr("error 1223: Given up"));
    type("select 6*7;\r");
    EXPECT_THAT(expect("42\r\n"), HasSubstr("6*7"));
    expectPrompt();
    type("\x04");
    int status = -1;
    std::string const rest = expect("nothing more");
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << rest;
    close(terminal);
    struct stat history
    {
    };
    ASSERT_EQ(stat((m_folder / "kvx/sql_history").c_str(), &history), 0);
    EXPECT_EQ(history.st_mode & 0777, 0600u);
    EXPECT_GT(history.st_size, 0);
}
} // namespace
