#include "StandardOutput.h"

#include "DisplayText.h"

#include "kvx/foundation/AppException.h"
#include "kvx/platform/Terminal.h"

#include <cstdio>

StandardOutput & StandardOutput::operator<<(std::string_view text)
{
    constexpr std::size_t FULL = 65536;
    m_strBuffer += text;
    if (m_strBuffer.size() >= FULL)
    {
        Write();
    }
    return *this;
}

Written StandardOutput::Finish()
{
    Write();
    return m_written;
}

void StandardOutput::Write()
{
    if (m_written == Written::Whole)
    {
        bool const bGood = std::fwrite(m_strBuffer.data(), 1, m_strBuffer.size(), stdout) == m_strBuffer.size() &&
                           std::fflush(stdout) == 0;
        m_written = bGood ? Written::Whole : kvx::HasReaderGone() ? Written::ReaderGone : Written::Failed;
    }
    m_strBuffer.clear();
}

void WriteError(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void ReportError(DWORD code, CString const & text)
{
    WriteError("error " + std::to_string(code) + ": " + ToDisplay(text).strText + "\n");
}

int ReportSystemError(DWORD code, CString const & subject)
{
    CString const text = CWinError::GetText(code);
    ReportError(code, subject.IsEmpty() ? text : subject + _T(": ") + text);
    return 1;
}

int ReportWritten(Written written)
{
    if (written == Written::Failed)
    {
        ReportSystemError(ERROR_WRITE_FAULT);
    }
    return written == Written::Failed ? 1 : 0;
}
