/// What a line of the log costs the thread that logs it, against spdlog's asynchronous logger.

#include "Harness.h"

#include "kvx/logging/LogManager.h"

#include <atomic>
#include <filesystem>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <thread>
#include <unistd.h>

namespace
{
using namespace bench;

/// Says how many lines have been written.
class CountingLog : public CFileLog
{
public:
    explicit CountingLog(LPCTSTR path) : CFileLog(path, 1, LOG_ALL) {}
    void Append(CLogEvent * event) override
    {
        CFileLog::Append(event);
        ++m_nLines;
    }

    std::atomic<int> m_nLines{0};
};

class TemporaryFolder
{
public:
    TemporaryFolder() : m_path(std::filesystem::temp_directory_path() / ("kvx-bench-" + std::to_string(::getpid())))
    {
        std::filesystem::create_directory(m_path);
    }
    TemporaryFolder(TemporaryFolder const &) = delete;
    TemporaryFolder & operator=(TemporaryFolder const &) = delete;
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }

    std::string Name(char const * file) const { return (m_path / file).string(); }

private:
    std::filesystem::path m_path;
};

template <class LOG>
double TimeBurst(int lines, LOG const & log)
{
    auto const start = Clock::now();
    for (int i = 0; i < lines; ++i)
    {
        log(i);
    }
    return Since(start) / lines;
}

void Pause()
{
    std::this_thread::sleep_for(std::chrono::microseconds(200));
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const lines = options.IsBrief() ? 20 : 2000;
    int const rounds = options.IsBrief() ? 1 : 60;
    TemporaryFolder const folder;

    auto * const sink = new CountingLog(kvx::FromUtf8(folder.Name("ours.log")));
    CLogManager::GetInstance()->RegisterSink(sink, 1);
    CString const who = _T("tcp");
    int logged = 0;
    auto const ours = [&]
    {
        double const each = TimeBurst(lines, [&](int i) { LogInfo(_T("Started listener '%s' on port %d"), who, i); });
        logged += lines;
        while (sink->m_nLines < logged)
        {
            Pause();
        }
        return each;
    };

    auto const pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto const logger = std::make_shared<spdlog::async_logger>(
        "bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder.Name("limit.log"), true), pool);
    std::string const plainWho = "tcp";
    auto const limit = [&]
    {
        double const each =
            TimeBurst(lines, [&](int i) { logger->info("Started listener '{}' on port {}", plainWho, i); });
        while (pool->queue_size() > 0)
        {
            Pause();
        }
        Pause();
        return each;
    };

    // The log's own thread works meanwhile, where there is a CPU for it.
    Compare({.strName = "a log line : spdlog, asynchronous", .target = Target::AtMost, .nTarget = 1.0}, rounds, ours,
            limit);
    CLogManager::Terminate();
    return 0;
}
