#include "MicroReport.h"

#include <benchmark/benchmark.h>

#include <map>

namespace bench
{
namespace
{
class PairReporter : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(Context const &) override { return true; }

    void ReportRuns(std::vector<Run> const & runs) override
    {
        for (Run const & run : runs)
        {
            if (run.error_occurred)
            {
                Fail(run.benchmark_name() + ": " + run.error_message);
            }
            if (run.run_type == Run::RT_Iteration)
            {
                m_order[run.family_index] = run.run_name.function_name;
                m_samples[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
            }
        }
    }

    void Print(double target)
    {
        for (auto const & [index, name] : m_order)
        {
            constexpr std::string_view OURS = "/ours";
            if (!name.ends_with(OURS))
            {
                continue;
            }
            std::string const stem = name.substr(0, name.size() - OURS.size());
            auto const limit = m_samples.find(stem + "/limit");
            if (limit == m_samples.end())
            {
                Fail("no limit for " + stem);
            }
            PrintRow({stem, Settled(m_samples[name]), Settled(limit->second), Target::AtMost, target});
        }
    }

private:
    std::map<std::string, std::vector<double>> m_samples;
    std::map<std::int64_t, std::string> m_order; // as they were registered
};
} // namespace

void RunPairs(int argc, char ** argv, double target)
{
    bool const bBrief = Options(argc, argv).IsBrief();
    std::vector<std::string> texts = {argv[0], bBrief ? "--benchmark_repetitions=1" : "--benchmark_repetitions=15",
                                      bBrief ? "--benchmark_min_time=0.0001" : "--benchmark_min_time=0.01",
                                      bBrief ? "--benchmark_enable_random_interleaving=false"
                                             : "--benchmark_enable_random_interleaving=true"};
    for (int i = 1; i < argc; ++i)
    {
        if (std::string_view(argv[i]).starts_with("--benchmark_"))
        {
            texts.emplace_back(argv[i]);
        }
    }
    std::vector<char *> arguments;
    for (std::string & text : texts)
    {
        arguments.push_back(text.data());
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    PairReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.Print(target);
    benchmark::ClearRegisteredBenchmarks();
}
} // namespace bench
