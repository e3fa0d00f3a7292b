// Compiles arbitrary patterns, up to the first NUL, and searches in what lies behind.

#include "Require.h"

#include "kvx/text/RegExp.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    std::string_view const input(reinterpret_cast<char const *>(data), size);
    std::size_t const end = std::min(input.find('\0'), size);
    CStringA const pattern(input.substr(0, end));
    CStringA const subject(input.substr(std::min(end + 1, size)));
    try
    {
        CRegExpA expression(pattern);
        expression.SetStepLimit(20'000);
        if (expression.Exec(subject))
        {
            Require(expression.IsMatched(0));
        }
        for (int i = 0; i < expression.GetNumberOfMatches(); ++i)
        {
            int const start = expression.GetMatchStart(i);
            Require(expression.IsMatched(i) ? start >= 0 && start <= expression.GetMatchEnd(i) &&
                                                  expression.GetMatchEnd(i) <= subject.GetLength()
                                            : start == -1);
            Require(expression.GetMatch(i).GetLength() == std::max(expression.GetMatchEnd(i) - start, 0));
        }
    }
    catch (CRegExpException const & error)
    {
        Require(error.GetError() < 0 && error.GetError() != CRegExpException::internal);
    }
    return 0;
}
