#include <gtest/gtest.h>

#include <windows.h>

// A console's Ctrl+Break isn't passed on; Ctrl+C is.
TEST(Wine, NoCtrlBreak)
{
    wchar_t words[] = L"cmd.exe /c pause";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child{};
    ASSERT_TRUE(
        CreateProcessW(nullptr, words, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &startup, &child));
    FreeConsole();
    for (int i = 0; i < 500 && !AttachConsole(child.dwProcessId); ++i) // until it has one
    {
        Sleep(20);
    }
    SetConsoleCtrlHandler([](DWORD) { return TRUE; }, TRUE);
    EXPECT_FALSE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, 0));
    EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
    FreeConsole();
    TerminateProcess(child.hProcess, 1);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
}
