#pragma once

/// What the measuring programs share: rounds that alternate between ours and the limit, the table of results, pinning
/// to CPUs, and the processes at the other end.

#include <chrono>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace bench
{
using Clock = std::chrono::steady_clock;

/// Nanoseconds since `start`.
double Since(Clock::time_point start);

double Median(std::vector<double> values);

/// The median of so many calls.
template <class CALL>
double TimeCalls(int calls, CALL && call)
{
    std::vector<double> times(static_cast<std::size_t>(calls));
    for (double & time : times)
    {
        auto const start = Clock::now();
        call();
        time = Since(start);
    }
    return Median(std::move(times));
}
/// The least of the medians of three stretches of the samples: a disturbance that lasts spoils one stretch, not the
/// result.
double Settled(std::span<double const> samples);

/// "--name" and "--name=value" of the command line.
class Options
{
public:
    Options(int argc, char ** argv) : m_arguments(argv + 1, argv + argc) {}

    bool Has(std::string_view name) const;
    std::string Get(std::string_view name, std::string const & otherwise) const;
    int GetNumber(std::string_view name, int otherwise) const;
    /// Each program runs once in a short form, so that it can't rot.
    bool IsBrief() const { return Has("brief"); }
    /// Whether a measurement is wanted: --only=TEXT keeps those with the text in their names.
    bool Wants(std::string_view name) const { return name.find(Get("only", "")) != std::string_view::npos; }

private:
    std::vector<std::string> m_arguments;
};

enum class Target
{
    AtMost,  ///< ours / limit, where both are costs
    AtLeast, ///< ours / limit, where both are rates
};

struct Row
{
    std::string strName;
    double nOurs = 0;  // nanoseconds a piece
    double nLimit = 0; // the same
    Target target = Target::AtMost;
    double nTarget = 0; // 0: shown for comparison only
};

/// Prints a row as soon as it is known; the head comes with the first one.
void PrintRow(Row const & row);
/// A row of another kind: a value and its bound in one unit, a bound of 0 being none.
void PrintValue(std::string const & name, double value, double bound, std::string const & unit);

/// Runs both in turns and prints the row. Each function carries out one round and gives its nanoseconds a piece.
void Compare(Row row, int rounds, std::function<double()> const & ours, std::function<double()> const & limit);

/// The calling thread and what it starts from now on run on this CPU alone; counted modulo the CPUs there are.
/// A negative one frees the thread again.
void PinTo(int cpu);
/// The same for all threads of this process: those of a pool outlive the measurement that they were started for.
void PinAllTo(int cpu);

/// This same program in another role. It writes one line when it is ready, and is to end when its standard input does.
class Child
{
public:
    explicit Child(std::vector<std::string> arguments);
    Child(Child const &) = delete;
    Child & operator=(Child const &) = delete;
    ~Child();

    std::string ReadLine() const;
    pid_t GetId() const { return m_id; }

private:
    pid_t m_id = 0;
    int m_nInput = -1;
    int m_nOutput = -1;
};

/// The child's side: says a line, and waits for the end.
void SayLine(std::string const & line);
void WaitForParent();

/// Resident memory of a process in bytes.
double ResidentMemory(pid_t process);

[[noreturn]] void Fail(std::string const & text);
} // namespace bench
