#include "kvx/logging/LogSink.h"

#include <array>

namespace
{
/// Writes `value` with at least `digits` digits.
WCHAR * PutNumber(WCHAR * to, unsigned value, int digits)
{
    std::array<WCHAR, 10> reversed;
    int count = 0;
    for (; value > 0 || count < digits; value /= 10)
    {
        reversed[static_cast<std::size_t>(count++)] = static_cast<WCHAR>('0' + value % 10);
    }
    while (count > 0)
    {
        *to++ = reversed[static_cast<std::size_t>(--count)];
    }
    return to;
}

/// "year-month-day hour:minute:second.millisecond": every line of the log has one, so it is put together by hand.
CString::View TimeStamp(SYSTEMTIME const & time, std::array<WCHAR, 40> & buffer)
{
    WCHAR * to = PutNumber(buffer.data(), time.wYear, 1);
    struct Piece
    {
        char separator;
        WORD value;
        int digits;
    };
    for (Piece const piece :
         {Piece{'-', time.wMonth, 2}, Piece{'-', time.wDay, 2}, Piece{' ', time.wHour, 2}, Piece{':', time.wMinute, 2},
          Piece{':', time.wSecond, 2}, Piece{'.', time.wMilliseconds, 3}})
    {
        *to++ = static_cast<WCHAR>(piece.separator);
        to = PutNumber(to, piece.value, piece.digits);
    }
    return CString::View(buffer.data(), static_cast<std::size_t>(to - buffer.data()));
}
} // namespace

void CLogEvent::BuildText()
{
    CLogSink::BuildText(m_strBuilt, m_time, m_nType, m_strText, nullptr);
}

WCHAR CLogEvent::GetTypeChar() const
{
    return CLogSink::GetTypeChar(m_nType);
}

void CLogEvent::Reset()
{
    m_strText.Empty();
    m_strBuilt.Empty();
}

WCHAR CLogSink::GetTypeChar(DWORD type)
{
    switch (type)
    {
    case LOG_WARNING:
        return 'W';
    case LOG_ERROR:
        return 'E';
    case LOG_VERBOSE:
        return 'V';
    default:
        return 'I';
    }
}

void CLogSink::BuildText(CString & out, SYSTEMTIME const & time, DWORD type, CString const & text, LPCTSTR suffix)
{
    std::array<WCHAR, 40> buffer;
    CString::View const stamp = TimeStamp(time, buffer);
    WCHAR const letter[] = {' ', '(', GetTypeChar(type), ')', ' '};
    out.Preallocate(static_cast<int>(stamp.size()) + 5 + text.GetLength());
    out.Assign(stamp);
    out.Append(CString::View(letter, std::size(letter)));
    out.Append(CString::View(text));
    out.Append(suffix);
}

CFileLog::CFileLog(LPCTSTR path, int truncate, DWORD mask) : CLogSink(mask)
{
    constexpr UINT OPEN = CFile::modeCreate | CFile::modeNoTruncate | CFile::shareDenyNone | CFile::modeWrite;
    if (CFile emptied; truncate == 1 && emptied.Open(path, OPEN))
    {
        emptied.SetLength(0); // which the handle below has no right to
    }
    // Nothing but this right makes each write go to the end of the file, wherever another process has moved that.
    m_file.m_hFile = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    m_file.SetFilePath(path);
}

CFileLog::~CFileLog()
{
    m_file.Abort(); // closes, and can't fail
}

void CFileLog::Append(CLogEvent * event)
{
    // One write for each line: that is what stays together.
    int const length = event->m_strBuilt.GetLength();
    int const room = 3 * length;
    char * const buffer = m_strLine.GetBuffer(room + 2);
    int bytes = 0;
    if (length > 0)
    {
        bytes = WideCharToMultiByte(CP_UTF8, 0, event->m_strBuilt, length, buffer, room, nullptr, nullptr);
    }
    buffer[bytes] = '\r';
    buffer[bytes + 1] = '\n';
    m_file.Write(buffer, static_cast<UINT>(bytes) + 2);
    m_file.Flush();
}

void CDebugLog::Append(CLogEvent * event)
{
    CString line;
    line.Format(_T("(%c) %s\n"), event->GetTypeChar(), event->m_strText);
    OutputDebugStringW(line);
}

CConsoleLog::CConsoleLog(HANDLE handle, DWORD mask) : CLogSink(mask), m_hOutput(handle)
{
    if (!m_hOutput)
    {
        AllocConsole();
        m_hOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    }
}

void CConsoleLog::Append(CLogEvent * event)
{
    DWORD written = 0;
    CString const line = event->m_strBuilt + _T("\n");
    if (!WriteConsoleW(m_hOutput, line, static_cast<DWORD>(line.GetLength()), &written, nullptr))
    {
        // A pipe or a file that the program's output was redirected to: Windows takes it for no console.
        std::string const text = kvx::ToUtf8(line);
        WriteFile(m_hOutput, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    }
}
