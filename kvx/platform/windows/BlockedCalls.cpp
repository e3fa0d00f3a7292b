#include "kvx/platform/BlockedCalls.h"

void kvx::EndPipeCalls(HANDLE hPipe)
{
    CancelIoEx(hPipe, nullptr);
}

void kvx::EndSocketCalls(SOCKET hSocket)
{
    CancelIoEx(reinterpret_cast<HANDLE>(hSocket), nullptr);
}
