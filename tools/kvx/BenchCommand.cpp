#include "Commands.h"
#include "Endpoint.h"
#include "Output.h"

#include "kvx/platform/Terminal.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

struct BenchOptions
{
    CallWords words;
    int nCount = 0;
    int nClients = 0;
    bool bOneWay = false;
};

/// Counts what a message comes to on the wire.
class CCountingStream : public CMsgStream
{
public:
    explicit CCountingStream(bool bCompact) : CMsgStream(1)
    {
        if (bCompact)
        {
            EnableCompact();
        }
    }
    ~CCountingStream() override { DeleteCompact(); }

    int ReadData(void *, DWORD) override { return 0; }
    int WriteData(void const *, DWORD count) override
    {
        m_nBytes += count;
        return 1;
    }

    ULONGLONG m_nBytes = 0;
};

/// All that the clients share.
struct Bench
{
    BenchOptions const & options;
    CEvent start{FALSE, TRUE};
    CEvent finished{FALSE, TRUE};
    std::atomic<int> nReady{0};
    std::atomic<int> nRunning{0};
    std::atomic<bool> bGivenUp{false};
};

/// One thread with one connection.
struct alignas(64) Client
{
    Bench * pBench = nullptr;
    CMsgConnection * pConnection = nullptr;
    int nCalls = 0;
    std::atomic<int> nDone{0};
    std::vector<std::uint64_t> latencies; // of the calls that succeeded, in nanoseconds
    Clock::time_point end;
    int nFailed = 0;
    DWORD nErrorCode = 0; // of the first failure
    CString strErrorText;
    ULONGLONG nBytesPerCall = 0;

    static unsigned int Proc(void * param)
    {
        static_cast<Client *>(param)->Run();
        return 0;
    }

    void Run()
    {
        latencies.reserve(static_cast<std::size_t>(nCalls));
        Endpoint::Connect(pConnection); // the calls alone are measured
        ++pBench->nReady;
        pBench->start.Lock(INFINITE);
        if (!pBench->bGivenUp)
        {
            CallAll();
        }
        end = Clock::now();
        if (--pBench->nRunning == 0)
        {
            pBench->finished.SetEvent();
        }
    }

    void CallAll()
    {
        CMsgRequest pattern;
        pBench->options.words.Fill(pattern);
        pattern.DiscardResults(pBench->options.bOneWay);
        for (int i = 1; i <= nCalls; ++i)
        {
            CMsgRequest request(pattern);
            request.SetConnection(pConnection);
            auto const begin = Clock::now();
            CMsgResponse & response = request.Execute();
            auto const taken = Clock::now() - begin;
            if (response.Succeeded())
            {
                latencies.push_back(static_cast<std::uint64_t>(std::chrono::nanoseconds(taken).count()));
            }
            else if (nFailed++ == 0)
            {
                nErrorCode = response.GetErrorCode();
                strErrorText = response.GetErrorText();
            }
            nDone.store(i, std::memory_order_relaxed);
            if (i == nCalls && response.Succeeded())
            {
                nBytesPerCall = CountBytes(request);
            }
        }
    }

    /// Measured on the last call, which costs the others nothing. A call within the process has no bytes on any wire;
    /// its wire form tells how much it carries.
    ULONGLONG CountBytes(CMsgRequest & request) const
    {
        CCountingStream bytes(!pConnection || pConnection->IsCompact());
        request.Write(bytes);
        if (!pBench->options.bOneWay)
        {
            request.GetResponse().Write(bytes);
        }
        return bytes.m_nBytes;
    }
};

void ShowProgress(std::vector<Client> const & clients, int count)
{
    constexpr int WIDTH = 40;
    LONGLONG done = 0;
    for (Client const & client : clients)
    {
        done += client.nDone.load(std::memory_order_relaxed);
    }
    auto const filled = static_cast<int>(done * WIDTH / count);
    std::string const bar =
        std::string(static_cast<std::size_t>(filled), '#') + std::string(static_cast<std::size_t>(WIDTH - filled), '.');
    std::array<char, 200> line{};
    std::snprintf(line.data(), line.size(), "\r[%s] %3d%%  %lld calls", bar.c_str(),
                  static_cast<int>(done * 100 / count), done);
    WriteError(line.data());
}

void WaitForClients(Bench & bench, std::vector<Client> const & clients)
{
    constexpr DWORD SHOW = 100; // milliseconds
    if (!kvx::TakesEscapes(kvx::StandardStream::Error))
    {
        bench.finished.Lock(INFINITE);
        return;
    }
    while (!bench.finished.Lock(SHOW))
    {
        ShowProgress(clients, bench.options.nCount);
    }
    WriteError("\r\x1B[K");
}

std::string FormatLine(char const * name, double value, int digits)
{
    std::array<char, 400> line{};
    std::snprintf(line.data(), line.size(), "%-11s %.*f\n", name, digits, value);
    return line.data();
}

std::string FormatTime(char const * name, std::vector<std::uint64_t> const & sorted, double share)
{
    if (sorted.empty())
    {
        return std::string(name) + std::string(12 - std::string_view(name).size(), ' ') + "-\n";
    }
    // The smallest time that so large a share of the calls stayed within.
    auto const rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return FormatLine(name, static_cast<double>(sorted[rank - 1]) / 1000, 1);
}

int PrintResult(BenchOptions const & options, std::vector<Client> & clients, Clock::time_point begin)
{
    std::vector<std::uint64_t> latencies;
    latencies.reserve(static_cast<std::size_t>(options.nCount));
    LONGLONG failed = 0;
    double bytes = 0;
    Clock::time_point end = begin;
    Client const * firstFailed = nullptr;
    for (Client & client : clients)
    {
        latencies.insert(latencies.end(), client.latencies.begin(), client.latencies.end());
        bytes += static_cast<double>(client.nBytesPerCall) * static_cast<double>(client.latencies.size());
        failed += client.nFailed;
        end = std::max(end, client.end);
        firstFailed = firstFailed || client.nFailed == 0 ? firstFailed : &client;
    }
    std::ranges::sort(latencies);
    double const seconds = std::max(1e-9, std::chrono::duration<double>(end - begin).count());
    StandardOutput out;
    out << FormatLine("calls", options.nCount, 0) << FormatLine("failed", static_cast<double>(failed), 0)
        << FormatLine("clients", static_cast<double>(clients.size()), 0) << FormatTime("median_us", latencies, 0.5)
        << FormatTime("p90_us", latencies, 0.9) << FormatTime("p99_us", latencies, 0.99)
        << FormatTime("worst_us", latencies, 1)
        << FormatLine("calls/s", static_cast<double>(latencies.size()) / seconds, 0)
        << FormatLine("bytes/s", bytes / seconds, 0);
    Written const written = out.Finish();
    if (!firstFailed)
    {
        return ReportWritten(written);
    }
    CString text;
    text.Format(_T("%s (%I64d of %d calls failed)"), firstFailed->strErrorText, failed, options.nCount);
    ReportError(firstFailed->nErrorCode, text);
    return 1;
}

int RunBench(BenchOptions const & options)
{
    Endpoint endpoint;
    if (!endpoint.Open(options.words.strConnection))
    {
        return 1;
    }
    Bench bench{options};
    std::vector<Client> clients(static_cast<std::size_t>(std::min(options.nClients, options.nCount)));
    auto const number = static_cast<int>(clients.size());
    int started = 0;
    for (Client & client : clients)
    {
        client.pBench = &bench;
        client.pConnection = endpoint.NewConnection();
        client.nCalls = options.nCount / number + (started < options.nCount % number ? 1 : 0);
        ++bench.nRunning;
        if (!CThreadPool::BeginThread(&Client::Proc, &client, 0))
        {
            ReportSystemError(GetLastError());
            bench.bGivenUp = true;
            --bench.nRunning;
            break;
        }
        ++started;
    }
    while (bench.nReady < started)
    {
        Sleep(1);
    }
    auto const begin = Clock::now();
    bench.start.SetEvent();
    if (started > 0)
    {
        WaitForClients(bench, clients);
    }
    return bench.bGivenUp ? 1 : PrintResult(options, clients, begin);
}
} // namespace

void AddBenchCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<BenchOptions>();
    CLI::App * const command = app.add_subcommand("bench", "Send many requests and tell how long they took");
    options->words.AddTo(*command);
    command->add_option("--count", options->nCount, "Calls in all")->required()->check(CLI::Range(1, 10'000'000));
    command->add_option("--clients", options->nClients, "Threads with a connection each")
        ->required()
        ->check(CLI::Range(1, 10'000));
    command->add_flag("--oneway", options->bOneWay, "Send the requests and read no responses");
    command->footer(
        "Prints times of a call in microseconds, and calls and bytes of messages per second. Connections are made "
        "before the clock starts.\n"
        "\n"
        "Examples:\n"
        "  kvx bench tcp:127.0.0.1:4100 host.echo text=hello --count 100000 --clients 4\n"
        "  kvx bench nt_pipe:kvx host.table.get rows=1000 columns=4 --count 100 --clients 1\n"
        "  kvx bench nt_pipe:kvx host.echo text=hello --count 100000 --clients 1\n"
        "  kvx bench inproc host.echo --count 1000000 --clients 2\n"
        "\n" +
        std::string(CONNECTION_HELP));
    command->callback([&run, options] { run = [options] { return RunBench(*options); }; });
}
