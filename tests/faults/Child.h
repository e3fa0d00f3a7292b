#pragma once

/// The process in which a scenario runs: it tells on stdout, a line for each step, how it goes. See Driver.cpp.

#include "Interpose.h"

#include <limits>

namespace faults
{
struct Description;

/// What a child does: a scenario again and again, with the first call of a kind failing, the second, and so on, until a
/// run comes through without such a call.
struct Task
{
    Call call = 0;
    unsigned long nFirst = 0; // 0: nothing fails, and all kinds are counted
    unsigned long nLast = std::numeric_limits<unsigned long>::max();
    bool bSample = false; // leaves out more and more
    bool bShow = false;
};

/// In the current folder, which is the process's own. Ends at the first fault, with 1.
int RunChild(Task const & task, Description const & description);
} // namespace faults
