#include "kvx/platform/Terminal.h"

#include <shellapi.h>

#include <io.h>

#include <cstdio>

namespace
{
// Set once a request to end has come, and never closed: the handler may run until the process is gone.
HANDLE g_hEndEvent = nullptr;

BOOL WINAPI OnControl(DWORD event)
{
    SetEvent(g_hEndEvent);
    if (event == CTRL_CLOSE_EVENT)
    {
        Sleep(INFINITE); // the system ends the process when this returns
    }
    return TRUE;
}

HANDLE StreamHandle(kvx::StandardStream stream)
{
    return GetStdHandle(stream == kvx::StandardStream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}
} // namespace

namespace kvx
{
std::vector<std::string> GetProgramArguments(int, char **)
{
    SetConsoleOutputCP(CP_UTF8);
    constexpr int BINARY = 0x8000; // no carriage returns are added
    _setmode(_fileno(stdout), BINARY);
    _setmode(_fileno(stderr), BINARY);

    int count = 0;
    LPWSTR * const words = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 1; words && i < count; ++i)
    {
        int const size = WideCharToMultiByte(CP_UTF8, 0, words[i], -1, nullptr, 0, nullptr, nullptr);
        std::string word(static_cast<std::size_t>(size > 0 ? size : 1), '\0');
        WideCharToMultiByte(CP_UTF8, 0, words[i], -1, word.data(), size, nullptr, nullptr);
        word.pop_back(); // the terminator
        arguments.push_back(word);
    }
    LocalFree(words);
    return arguments;
}

bool IsOpen(StandardStream stream)
{
    HANDLE const handle = StreamHandle(stream);
    return handle && handle != INVALID_HANDLE_VALUE;
}

bool IsTerminal(StandardStream stream)
{
    DWORD mode = 0;
    return GetConsoleMode(StreamHandle(stream), &mode) != FALSE;
}

int GetTerminalWidth()
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    return GetConsoleScreenBufferInfo(StreamHandle(StandardStream::Output), &info)
               ? info.srWindow.Right - info.srWindow.Left + 1
               : 0;
}

bool CatchEndSignals()
{
    if (!g_hEndEvent)
    {
        g_hEndEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    return g_hEndEvent && SetConsoleCtrlHandler(&OnControl, TRUE);
}

bool WaitForEndSignal(DWORD timeout)
{
    return WaitForSingleObject(g_hEndEvent, timeout) == WAIT_OBJECT_0;
}
} // namespace kvx
