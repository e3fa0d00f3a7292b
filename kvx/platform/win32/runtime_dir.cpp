#include "kvx/platform/win32/runtime_dir.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/termination.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// The current folder when the first relative path was met: what the process shares mustn't move with its steps.
std::string const & StartFolder()
{
    UninterruptedScope const scope;
    static std::string const & strFolder = *new std::string(
        []
        {
            std::unique_ptr<char, decltype(&std::free)> const pszFolder(::getcwd(nullptr, 0), &std::free);
            return std::string(pszFolder ? pszFolder.get() : "");
        }());
    return strFolder;
}

bool IsOwn(char const * pszFolder)
{
    struct stat info
    {
    };
    return ::stat(pszFolder, &info) == 0 && info.st_uid == ::geteuid();
}

/// Empty with errno if there is no telling.
std::string MakePath()
{
    if (char const * const pFolder = std::getenv("KVX_RUNTIME_DIR"); pFolder && *pFolder)
    {
        std::string strPath(pFolder);
        if (*pFolder != '/')
        {
            if (StartFolder().empty())
            {
                errno = ENOENT;
                return {};
            }
            strPath = StartFolder() + '/' + pFolder;
        }
        while (strPath.size() > 1 && strPath.back() == '/')
        {
            strPath.pop_back();
        }
        return strPath;
    }
    // A program that runs for another user than the one who started it may still see that one's folder.
    if (char const * const pFolder = std::getenv("XDG_RUNTIME_DIR"); pFolder && *pFolder == '/' && IsOwn(pFolder))
    {
        return std::string(pFolder) + "/kvx";
    }
    return "/tmp/kvx-" + std::to_string(::geteuid());
}

UniqueFd OpenFolder(std::string const & strPath)
{
    if (strPath.empty() || (::mkdir(strPath.c_str(), S_IRWXU) != 0 && errno != EEXIST))
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
        // A link, a plain file or somebody else's folder in its place.
        SetLastError(errno == ELOOP || errno == ENOTDIR || errno == EACCES ? ERROR_BAD_ENVIRONMENT
                                                                           : ErrorFromErrno(errno));
        return {};
    }
    if (info.st_uid != ::geteuid() || (info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    {
        SetLastError(ERROR_BAD_ENVIRONMENT);
        return {};
    }
    return folder;
}

} // namespace

std::string GetRuntimeFolder()
{
    std::string strPath = MakePath();
    return OpenFolder(strPath) ? strPath : std::string();
}

UniqueFd OpenRuntimeFolder() noexcept
try
{
    return OpenFolder(MakePath());
}
catch (std::bad_alloc const &)
{
    return WithoutMemory(UniqueFd());
}

} // namespace kvx::win32
