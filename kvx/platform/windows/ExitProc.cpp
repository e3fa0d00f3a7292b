#include "kvx/platform/ExitProc.h"

#include "kvx/platform/host.h"

void kvx::SetExitProc(void (*)())
{
    // The C library's exit is behind a lock. And it must not be one of the thread's own objects that calls: those of
    // MinGW go when their memory has gone, at the end of the thread, which has the loader's lock then.
}

void kvx::RunBeforeThreadsGo(void (*proc)())
{
    // Registered by itself a DLL's function runs when the DLL goes. The C library's own list, which it shares with the
    // program, is walked in exit.
    using OnExit = int (*(__cdecl *)(int(__cdecl *)()))();
    auto const onExit =
        reinterpret_cast<OnExit>(reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), "_onexit")));
    static void (*s_proc)();
    HMODULE module = nullptr;
    if (onExit && GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                                     reinterpret_cast<LPCWSTR>(&s_proc), &module))
    {
        s_proc = proc;
        onExit(
            []
            {
                s_proc();
                return 0;
            });
    }
}
