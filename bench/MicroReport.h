#pragma once

/// Runs the registered benchmarks in short interleaved repetitions and pairs them: "copy, 8/ours" is held against
/// "copy, 8/limit".

#include "Harness.h"

namespace bench
{
/// Removes the benchmarks when they have run. Options that Google Benchmark knows go to it.
void RunPairs(int argc, char ** argv, double target);
} // namespace bench
