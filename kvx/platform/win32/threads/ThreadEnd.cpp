#include "kvx/platform/ThreadEnd.h"

BOOL kvx::EndThread(HANDLE hThread)
{
    return TerminateThread(hThread, 0);
}
