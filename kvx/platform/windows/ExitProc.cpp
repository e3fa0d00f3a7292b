#include "kvx/platform/ExitProc.h"

void kvx::SetExitProc(void (*)())
{
    // The C library's exit is behind a lock. And it must not be one of the thread's own objects that calls: those of
    // MinGW go when their memory has gone, at the end of the thread, which has the loader's lock then.
}
