#include "kvx/platform/win32/runtime_dir.h"

#include "kvx/platform/win32/errors.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

std::string MakePath()
{
    if (char const * const pFolder = std::getenv("KVX_RUNTIME_DIR"); pFolder && *pFolder)
    {
        std::string strPath(pFolder);
        while (strPath.size() > 1 && strPath.back() == '/')
            strPath.pop_back();
        return strPath;
    }
    if (char const * const pFolder = std::getenv("XDG_RUNTIME_DIR"); pFolder && *pFolder == '/')
        return std::string(pFolder) + "/kvx";
    return "/tmp/kvx-" + std::to_string(::geteuid());
}

UniqueFd OpenFolder(std::string const & strPath)
{
    if (::mkdir(strPath.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    {
        SetLastErrorFromErrno();
        return {};
    }
    UniqueFd folder(::open(strPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info
    {
    };
    if (!folder || ::fstat(folder.Get(), &info) != 0)
    {
        // A link or a plain file in the folder's place.
        SetLastError(errno == ELOOP || errno == ENOTDIR ? ERROR_ACCESS_DENIED : ErrorFromErrno(errno));
        return {};
    }
    if (info.st_uid != ::geteuid() || (info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return {};
    }
    return folder;
}

} // namespace

void UniqueFd::Reset() noexcept
{
    if (m_nFd < 0)
        return;
    int const nErrno = errno;
    ::close(Detach());
    errno = nErrno;
}

std::string GetRuntimeFolder()
{
    std::string strPath = MakePath();
    return OpenFolder(strPath) ? strPath : std::string();
}

UniqueFd OpenRuntimeFolder()
{
    return OpenFolder(MakePath());
}

} // namespace kvx::win32
