#pragma once

/// Makes one chosen call of the system fail. This program's own functions stand in front of the C library's, for itself
/// and for every library that it has loaded, and forward to them whatever isn't to fail.

#include <cstddef>
#include <span>

namespace faults
{
/// One way for a call to fail: "memory", "open", "write-short" and so on.
using Call = std::size_t;

/// The names of all of them, in the order of their numbers.
std::span<char const * const> GetCallNames();

/// From here on the calls of all threads are counted, and the one of that kind and number fails: 1 is the first, 0
/// none. With `bShow` the stack of the failing call goes to stderr, as modules and offsets.
void Arm(Call call, unsigned long nNumber, bool bShow);
/// Nothing fails any more. Whether something did.
bool Disarm();
/// The calls of that kind since the last Arm.
unsigned long GetCount(Call call);

/// While it lives the calls of this thread neither count nor fail: for what a scenario does to look at an outcome.
class Spared
{
public:
    Spared();
    ~Spared();
    Spared(Spared const &) = delete;
    Spared & operator=(Spared const &) = delete;
};
} // namespace faults
