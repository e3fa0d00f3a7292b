#include "NoLeaks.h"

#include "kvx/platform/win32/handles.h"

std::size_t CountTableHandles()
{
    return kvx::win32::GetOpenHandleCount();
}
