#pragma once

#include <cstdlib>

/// Ends the program if that isn't true, which the fuzzer reports.
inline void Require(bool bTrue)
{
    if (!bTrue)
    {
        std::abort();
    }
}
