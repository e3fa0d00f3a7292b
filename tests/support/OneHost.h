#pragma once

/// What a test can't have on the other host, said in one way: the reason, and the date on which it was found.

#include <gtest/gtest.h>

/// The first statement of a test of what the Linux layer alone promises: names of the host's loader, limits of
/// descriptors, texts that it refuses.
#define KVX_LINUX_ALONE(REASON, DATE)                                                                                  \
    if (host::IsWindows())                                                                                             \
    GTEST_SKIP() << "Linux alone: " REASON " (" DATE ")"

/// The first statement of a test that Wine fails and Windows must pass. A test of tests/wine proves what Wine does, and
/// fails when a later Wine does better: then this goes.
#define KVX_NOT_UNDER_WINE(REASON, DATE)                                                                               \
    if (host::IsWine())                                                                                                \
    GTEST_SKIP() << "not under Wine: " REASON " (" DATE ")"

namespace host
{
/// For a part of a test, with reason and date beside it.
bool IsWindows();
/// Windows, as Wine provides it.
bool IsWine();
} // namespace host
