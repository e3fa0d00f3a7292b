#pragma once

/// A file that a command writes.

#include "StandardOutput.h"

#include "kvx/platform/mfc/File.h"

#include <memory>
#include <string>

/// The file, or stdout for "-". A regular file takes the place of an old one only when it is complete: until `Finish`
/// it grows beside it, and goes if that isn't called. Anything else that exists, a pipe or a device, is written to as
/// it is.
class OutputFile
{
public:
    /// The name is as on the command line.
    explicit OutputFile(std::string name);
    OutputFile(OutputFile const &) = delete;
    OutputFile & operator=(OutputFile const &) = delete;
    ~OutputFile();

    /// False, with an error line, if the file can't be made.
    bool Open();
    /// What to write to. It raises CFileException.
    CFile & Get() { return *m_file; }
    /// The exit status of the command, 0 or 1, with an error line for a failure.
    int Finish();

private:
    class ToStdout;

    std::string const m_strName;
    std::string m_strTemporary; // empty: written in place
    std::unique_ptr<CFile> m_file;
};
