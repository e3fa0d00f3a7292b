/// Regular expressions over 10 MB of text, against the standard library's; RE2's figures stand beside them, as what an
/// engine without backtracking reaches.

#include "Harness.h"

#include "kvx/text/RegExp.h"

#include <re2/re2.h>

#include <regex>
#include <string>

namespace
{
using namespace bench;

std::string Sample(std::size_t size)
{
    char const * const words[] = {"alpha",      "connection", "listener", "request 4711",
                                  "error_text", "timeout",    "x",        "queue"};
    std::string text;
    for (unsigned int seed = 1; text.size() < size;)
    {
        seed = seed * 1664525 + 1013904223;
        text += words[seed >> 29];
        text += (seed >> 24 & 15) == 0 ? '\n' : ' ';
    }
    return text + "needle=1234 the end";
}

double MegabytesOf(std::string const & text)
{
    return static_cast<double>(text.size()) / 1e6;
}

struct Pattern
{
    char const * name;
    char const * ours;
    char const * others;
    double target; // times the standard library's speed; 0: for comparison
};

void Measure(Pattern const & pattern, std::string const & text)
{
    CStringA const subject(text);
    CRegExpA ours(pattern.ours);
    ours.SetStepLimit(~ULONGLONG{0});
    std::regex const standard(pattern.others, std::regex::extended | std::regex::optimize);
    re2::RE2 const other(pattern.others);
    auto const rate = [&](auto const & search)
    {
        return [&text, search]
        {
            auto const start = Clock::now();
            if (!search())
            {
                Fail("a search found nothing");
            }
            return Since(start) / MegabytesOf(text);
        };
    };
    auto const searchOurs = rate([&] { return ours.Exec(subject) != 0; });
    Compare({pattern.name, 0, 0, Target::AtLeast, pattern.target}, 5, searchOurs,
            rate([&] { return std::regex_search(text, standard); }));
    Compare({std::string(pattern.name) + ", RE2", 0, 0, Target::AtLeast, 0}, 5, searchOurs,
            rate([&] { return re2::RE2::PartialMatch(text, other); }));
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    std::string const text = Sample(options.IsBrief() ? 100'000 : 10'000'000);
    Pattern const patterns[] = {
        {"literal", "needle=1234", "needle=1234", 10},
        {"literal, then digits", "needle=[0-9]+", "needle=[0-9]+", 10},
        {"literal, then groups", "needle=([0-9]+) (the|an) (e.*)", "needle=([0-9]+) (the|an) (e.*)", 10},
        {"frequent literal", "request [0-9]+x|needle", "request [0-9]+x|needle", 0},
        {"set first", "[m-n]ee[a-z]*=[0-9]+", "[m-n]ee[a-z]*=[0-9]+", 0},
    };
    for (Pattern const & pattern : patterns)
    {
        if (options.Wants(pattern.name))
        {
            Measure(pattern, text);
        }
    }
    return 0;
}
