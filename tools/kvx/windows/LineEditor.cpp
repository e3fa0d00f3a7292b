#include "kvx/LineEditor.h"

#include "kvx/platform/Terminal.h"
#include "kvx/platform/mfc/Text.h"

#include <cstdio>

/// The console edits lines itself, and keeps those that were typed while it is open.
struct LineEditor::Parts
{
    HANDLE hInput = CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    HANDLE hOutput = CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, 0, nullptr);

    DWORD nMode = 0; // that the console had

    void Write(CString const & text) const
    {
        DWORD written = 0;
        WriteConsoleW(hOutput, text.GetString(), static_cast<DWORD>(text.GetLength()), &written, nullptr);
    }
};

LineEditor::LineEditor(std::string) : m_parts(std::make_unique<Parts>())
{
    GetConsoleMode(m_parts->hInput, &m_parts->nMode);
    SetConsoleMode(m_parts->hInput, m_parts->nMode | ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT | ENABLE_PROCESSED_INPUT);
}

LineEditor::~LineEditor()
{
    SetConsoleMode(m_parts->hInput, m_parts->nMode);
    for (HANDLE const handle : {m_parts->hInput, m_parts->hOutput})
    {
        if (handle != INVALID_HANDLE_VALUE)
        {
            CloseHandle(handle);
        }
    }
}

bool LineEditor::IsUsable() const
{
    return m_parts->hInput != INVALID_HANDLE_VALUE && m_parts->hOutput != INVALID_HANDLE_VALUE;
}

LineEditor::Key LineEditor::Read(std::string const & prompt, std::string & line)
{
    constexpr WCHAR END = 0x1A; // Ctrl-Z
    m_parts->Write(kvx::FromUtf8(prompt));
    CString text;
    while (text.IsEmpty() || text[text.GetLength() - 1] != '\n')
    {
        WCHAR piece[1024];
        DWORD got = 0;
        SetLastError(0);
        if (!ReadConsoleW(m_parts->hInput, piece, static_cast<DWORD>(std::size(piece)), &got, nullptr) || got == 0)
        {
            bool const interrupted = GetLastError() == ERROR_OPERATION_ABORTED;
            m_parts->Write(_T("\r\n"));
            return interrupted ? Key::Interrupt : Key::End;
        }
        text += CString(piece, static_cast<int>(got));
    }
    if (text[0] == END)
    {
        return Key::End;
    }
    line = kvx::ToUtf8(text.TrimRight(_T("\r\n")));
    return Key::Line;
}

void LineEditor::Remember(std::string const &) {} // the console does

std::string LineEditor::GetHistoryPath(std::string const &)
{
    return {};
}

std::string LineEditor::GetHelp()
{
    return "On a console lines can be edited, which keeps them while it is open; Ctrl-C gives up the line or the call, "
           "Ctrl-Z and Enter, or quit, ends.";
}
