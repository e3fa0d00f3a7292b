#pragma once

/// What the commands write to stdout, and to stderr.

#include "kvx/platform/mfc/Text.h"

#include <string>
#include <string_view>

/// What came of it.
enum class Written
{
    Whole,
    ReaderGone, // nobody wants the rest, which is no failure
    Failed
};

/// Gathers text for stdout.
class StandardOutput
{
public:
    StandardOutput & operator<<(std::string_view text);
    /// Writes what is left.
    Written Finish();

private:
    std::string m_strBuffer;
    Written m_written = Written::Whole;

    void Write();
};

/// Writes it to stderr as one piece: some hosts' streams would take it byte by byte, which tears characters apart.
void WriteError(std::string_view text);
/// Writes the line `error CODE: TEXT` to stderr.
void ReportError(DWORD code, CString const & text);
/// The same with the system's text of the code, behind the subject if there is one. 1, the exit status of a failure.
int ReportSystemError(DWORD code, CString const & subject = CString());

/// The exit status of a command that wrote this, 0 or 1; a failure gets its error line.
int ReportWritten(Written written);
