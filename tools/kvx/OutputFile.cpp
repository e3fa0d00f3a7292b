#include "OutputFile.h"

#include "FileNames.h"
#include "Output.h"

#include <filesystem>
#include <utility>

namespace fs = std::filesystem;

class OutputFile::ToStdout : public CFile
{
public:
    void Write(void const * lpBuf, UINT nCount) override
    {
        m_out << std::string_view(static_cast<char const *>(lpBuf), nCount);
    }
    int Finish() { return ReportWritten(m_out.Finish()); }

private:
    StandardOutput m_out;
};

OutputFile::OutputFile(std::string name) : m_strName(std::move(name)) {}

OutputFile::~OutputFile()
{
    m_file.reset();
    std::error_code ignored;
    if (!m_strTemporary.empty())
    {
        fs::remove(ToPath(m_strTemporary), ignored);
    }
}

namespace
{
/// Such as "nul": a name that Windows has in every folder.
bool IsDevice(std::string const & name)
{
    WCHAR path[MAX_PATH] = {};
    return GetFullPathNameW(ToFileName(name), MAX_PATH, path, nullptr) < MAX_PATH &&
           CString::View(path).starts_with(_T("\\\\.\\"));
}
} // namespace

bool OutputFile::Open()
{
    if (m_strName == "-")
    {
        m_file = std::make_unique<ToStdout>();
        return true;
    }
    std::error_code ignored;
    fs::file_status const status = fs::status(ToPath(m_strName), ignored);
    bool const bInPlace = IsDevice(m_strName) || (fs::exists(status) && !fs::is_regular_file(status));
    if (fs::is_regular_file(status) && (status.permissions() & fs::perms::owner_write) == fs::perms::none)
    {
        ReportSystemError(ERROR_ACCESS_DENIED, ToFileName(m_strName));
        return false;
    }
    // Where the name is a link, the file that it leads to is the one that is replaced.
    fs::path target = fs::weakly_canonical(ToPath(m_strName), ignored);
    target = ignored ? ToPath(m_strName) : target;
    std::string const written =
        bInPlace ? m_strName : FromPath(target) + ".new-" + std::to_string(GetCurrentProcessId());
    auto file = std::make_unique<CFile>();
    CFileException failure;
    if (!file->Open(ToFileName(written), CFile::modeCreate | CFile::modeWrite | CFile::shareDenyWrite, &failure))
    {
        ReportSystemError(static_cast<DWORD>(failure.m_lOsError), ToFileName(m_strName));
        return false;
    }
    if (!bInPlace)
    {
        m_strTemporary = written;
        if (fs::exists(status))
        {
            fs::permissions(ToPath(written), status.permissions(), ignored);
        }
    }
    m_file = std::move(file);
    return true;
}

int OutputFile::Finish()
{
    if (auto * const out = dynamic_cast<ToStdout *>(m_file.get()))
    {
        return out->Finish();
    }
    if (!m_strTemporary.empty())
    {
        FlushFileBuffers(*m_file); // the name must not change before the content is there
    }
    m_file->Close();
    if (!m_strTemporary.empty())
    {
        std::error_code failed;
        fs::path target = fs::weakly_canonical(ToPath(m_strName), failed);
        fs::rename(ToPath(m_strTemporary), failed ? ToPath(m_strName) : target, failed);
        if (failed)
        {
            ReportError(ERROR_WRITE_FAULT, ToFileName(m_strName) + _T(": ") + CString(kvx::FromUtf8(failed.message())));
            return 1;
        }
        m_strTemporary.clear();
    }
    return 0;
}
