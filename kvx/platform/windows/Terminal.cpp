#include "kvx/platform/Terminal.h"

#include <shellapi.h>

#include <io.h>

#include <cstdio>
#include <cstdlib>

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
    _setmode(_fileno(stdin), BINARY);
    _setmode(_fileno(stdout), BINARY);
    _setmode(_fileno(stderr), BINARY);
    // What is written as one goes out as one: a console takes no parts of characters.
    constexpr std::size_t ROOM = 65536;
    std::setvbuf(stdout, nullptr, _IOFBF, ROOM);
    std::setvbuf(stderr, nullptr, _IOFBF, ROOM);
    for (auto const stream : {StandardStream::Output, StandardStream::Error})
    {
        DWORD mode = 0;
        if (GetConsoleMode(StreamHandle(stream), &mode))
        {
            SetConsoleMode(StreamHandle(stream), mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
        }
    }

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

bool TakesEscapes(StandardStream stream)
{
    DWORD mode = 0;
    return GetConsoleMode(StreamHandle(stream), &mode) && (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

bool HasReaderGone()
{
    // The C library has several numbers for it.
    return _doserrno == ERROR_BROKEN_PIPE || _doserrno == ERROR_NO_DATA || _doserrno == ERROR_PIPE_NOT_CONNECTED;
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
    if (!g_hEndEvent)
    {
        Sleep(timeout);
        return false;
    }
    return WaitForSingleObject(g_hEndEvent, timeout) == WAIT_OBJECT_0;
}
} // namespace kvx
