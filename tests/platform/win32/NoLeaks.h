#pragma once

#include "Descriptors.h"
#include "kvx/platform/win32/handles.h"

/// At its end as many descriptors and handles are open as when it began.
class NoLeaks
{
public:
    ~NoLeaks()
    {
        EXPECT_EQ(CountDescriptors(), m_nDescriptors) << "descriptors leak";
        EXPECT_EQ(kvx::win32::GetOpenHandleCount(), m_nHandles) << "handles leak";
    }

private:
    std::size_t const m_nDescriptors = CountDescriptors();
    std::uint32_t const m_nHandles = kvx::win32::GetOpenHandleCount();
};
