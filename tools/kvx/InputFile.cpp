#include "InputFile.h"

#include "FileNames.h"
#include "HostFile.h"

#include "kvx/foundation/AppException.h"

#include <cerrno>
#include <filesystem>

namespace
{
[[noreturn]] void ThrowFileFailure(int error)
{
    DWORD const code = error == ENOENT || error == ENOTDIR  ? ERROR_FILE_NOT_FOUND
                       : error == EACCES || error == EISDIR ? ERROR_ACCESS_DENIED
                       : error == EMFILE                    ? ERROR_TOO_MANY_OPEN_FILES
                       : error == EBADF                     ? ERROR_INVALID_HANDLE
                                                            : ERROR_READ_FAULT;
    CFileException::ThrowOsError(static_cast<LONG>(code));
}
} // namespace

InputFile::InputFile(std::string const & name)
{
    if (name == "-")
    {
        m_file.reset(stdin);
        return;
    }
    m_file.reset(OpenHostFile(name));
    if (!m_file)
    {
        ThrowFileFailure(errno);
    }
    std::error_code ignored;
    std::uintmax_t const size = std::filesystem::file_size(ToPath(name), ignored);
    m_nSize = ignored ? 0 : size;
}

std::size_t InputFile::Read(std::span<BYTE> room)
{
    std::size_t const size = std::fread(room.data(), 1, room.size(), m_file.get());
    if (size == 0 && std::ferror(m_file.get()))
    {
        ThrowFileFailure(errno);
    }
    return size;
}
