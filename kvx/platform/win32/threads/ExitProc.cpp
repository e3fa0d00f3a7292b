#include "kvx/platform/ExitProc.h"

void kvx::SetExitProc(void (*proc)())
{
    // What a thread has for itself goes before the handlers.
    struct Guard
    {
        void (*proc)() = nullptr;
        ~Guard()
        {
            if (proc)
            {
                proc();
            }
        }
    };
    thread_local Guard t_guard;
    t_guard.proc = proc;
}

void kvx::RunBeforeThreadsGo(void (*)()) {}
