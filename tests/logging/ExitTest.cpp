#include "kvx/logging/LogManager.h"

#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

#include <algorithm>

using LogDeathTest = TestFolder;

TEST_F(LogDeathTest, ExitWritesWhatIsQueued)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // The child makes itself a folder too: the file is this one's.
    std::string const path = std::filesystem::path(m_strHost).parent_path().string() + "/kvx-log-exit";
    for (int i = 0; i < 12; ++i)
    {
        bool const bFlush = i % 2 == 0; // then the log's thread is just about to go to sleep
        EXPECT_EXIT(
            {
                CLogManager * const log = CLogManager::GetInstance();
                log->RegisterSink(new CFileLog(kvx::FromUtf8(path), 1, LOG_ALL), 1);
                LogInfo(_T("first"));
                if (bFlush)
                {
                    log->Flush(INFINITE);
                }
                for (int line = 0; line < 200; ++line)
                {
                    LogInfo(_T("queued"));
                }
                std::exit(3);
            },
            testing::ExitedWithCode(3), "");
        std::ifstream file(path);
        auto const lines = std::count(std::istreambuf_iterator<char>(file), {}, '\n');
        EXPECT_TRUE(lines == 201 || (lines == 202 && host::IsWindows()))
            << i << ": " << lines; // the one at work, again
    }
    std::filesystem::remove(path);
}
