#pragma once

#include "tests/support/Host.h"

#include <gtest/gtest.h>

#include <cstddef>

/// How many handles of our own table are open; on Windows, which counts all of them, none.
std::size_t CountTableHandles();

/// At its end as much is open as when it began.
class NoLeaks
{
public:
    ~NoLeaks()
    {
        EXPECT_EQ(host::CountHandles(), m_nOfHost) << "the host's descriptors or handles leak";
        EXPECT_EQ(CountTableHandles(), m_nOfTable) << "handles leak";
    }

private:
    std::size_t const m_nOfHost = host::CountHandles();
    std::size_t const m_nOfTable = CountTableHandles();
};
