#include "kvx/platform/ConfinedFolder.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/time.h"
#include "kvx/platform/win32/unique_fd.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx
{

namespace
{

using win32::UniqueFd;

constexpr int FOLDER_FLAGS = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC; // one that can't be listed will do

bool FailBy(int nErrno) noexcept
{
    SetLastError(nErrno == ELOOP || nErrno == ENOTDIR ? static_cast<DWORD>(ERROR_CANT_ACCESS_FILE)
                                                      : win32::ErrorFromErrno(nErrno));
    return false;
}

bool IsName(std::string const & name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos && name.find('\0') == name.npos;
}

class File : public ConfinedFile
{
public:
    File(std::shared_ptr<UniqueFd> folder, std::string temporary, std::string name, UniqueFd file)
        : m_folder(std::move(folder)), m_temporary(std::move(temporary)), m_name(std::move(name)),
          m_file(std::move(file))
    {
    }
    ~File() override
    {
        if (!m_temporary.empty())
        {
            ::unlinkat(m_folder->Get(), m_temporary.c_str(), 0);
        }
    }

    bool Write(std::span<std::uint8_t const> data) override
    {
        while (!data.empty())
        {
            auto const nWritten = win32::Retry([&] { return ::write(m_file.Get(), data.data(), data.size()); });
            if (nWritten < 0)
            {
                return FailBy(errno);
            }
            data = data.subspan(static_cast<std::size_t>(nWritten));
        }
        return true;
    }

    bool Finish(FILETIME const * written, bool isReadOnly, bool isProgram) override
    {
        if (written)
        {
            timespec const times[2] = {{0, UTIME_OMIT}, win32::ToHostTime(*written)};
            if (::futimens(m_file.Get(), times) != 0)
            {
                return FailBy(errno);
            }
        }
        // As a new file would be: without what the mask takes.
        mode_t const nMask = GetMask();
        mode_t const nMode = (isReadOnly ? 0444 : 0666) | (isProgram ? 0111 : 0);
        if (::fchmod(m_file.Get(), nMode & ~nMask) != 0)
        {
            return FailBy(errno);
        }
        m_file.Reset();
        if (::renameat(m_folder->Get(), m_temporary.c_str(), m_folder->Get(), m_name.c_str()) != 0)
        {
            SetLastError(errno == EISDIR ? static_cast<DWORD>(ERROR_DIRECTORY) : win32::ErrorFromErrno(errno));
            return false;
        }
        m_temporary.clear();
        return true;
    }

private:
    std::shared_ptr<UniqueFd> m_folder;
    std::string m_temporary; // its name, empty when it is finished
    std::string m_name;
    UniqueFd m_file;

    // The mask can't be read without setting it, which other threads would notice; the kernel tells it as text.
    static mode_t GetMask()
    {
        static mode_t const s_nMask = []
        {
            unsigned nMask = 022;
            if (FILE * const status = std::fopen("/proc/self/status", "re"))
            {
                char line[256];
                while (std::fgets(line, sizeof line, status) && std::sscanf(line, "Umask: %o", &nMask) != 1)
                {
                }
                std::fclose(status);
            }
            return static_cast<mode_t>(nMask);
        }();
        return s_nMask;
    }
};

class Folder : public ConfinedFolder
{
public:
    explicit Folder(UniqueFd root) : m_root(std::make_shared<UniqueFd>(std::move(root))), m_current(m_root) {}

    std::unique_ptr<ConfinedFile> Create(std::vector<std::string> const & names) override
    {
        for (std::string const & name : names)
        {
            if (!IsName(name))
            {
                SetLastError(ERROR_INVALID_NAME);
                return nullptr;
            }
        }
        if (names.empty())
        {
            SetLastError(ERROR_INVALID_NAME);
            return nullptr;
        }
        if (!Enter({names.begin(), names.end() - 1}))
        {
            return nullptr;
        }
        struct stat found;
        if (::fstatat(m_current->Get(), names.back().c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(found.st_mode))
        {
            SetLastError(ERROR_DIRECTORY);
            return nullptr;
        }
        for (;;)
        {
            static std::atomic<unsigned> s_nNext;
            std::string temporary = ".kvx-" + std::to_string(::getpid()) + "-" + std::to_string(s_nNext++) + ".tmp";
            UniqueFd file(::openat(m_current->Get(), temporary.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (file)
            {
                return std::make_unique<File>(m_current, std::move(temporary), names.back(), std::move(file));
            }
            if (errno != EEXIST)
            {
                FailBy(errno);
                return nullptr;
            }
        }
    }

private:
    std::shared_ptr<UniqueFd> m_root;
    std::vector<std::string> m_names; // of the folder that is open beside the root
    std::shared_ptr<UniqueFd> m_current;

    bool Enter(std::vector<std::string> names)
    {
        if (names == m_names)
        {
            return true;
        }
        std::shared_ptr<UniqueFd> folder = m_root;
        for (std::string const & name : names)
        {
            if (::mkdirat(folder->Get(), name.c_str(), 0777) != 0 && errno != EEXIST)
            {
                return FailBy(errno);
            }
            UniqueFd next(::openat(folder->Get(), name.c_str(), FOLDER_FLAGS));
            if (!next)
            {
                return FailBy(errno);
            }
            folder = std::make_shared<UniqueFd>(std::move(next));
        }
        m_names = std::move(names);
        m_current = std::move(folder);
        return true;
    }
};

} // namespace

std::unique_ptr<ConfinedFolder> ConfinedFolder::Open(std::string const & path)
{
    // Folder by folder, those on the way too.
    for (std::size_t nEnd = path.find('/', 1);; nEnd = path.find('/', nEnd + 1))
    {
        std::string const part = path.substr(0, nEnd);
        if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST && (nEnd == path.npos || errno != EACCES))
        {
            FailBy(errno);
            return nullptr;
        }
        if (nEnd == path.npos)
        {
            break;
        }
    }
    UniqueFd root(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root)
    {
        SetLastError(errno == ENOTDIR ? static_cast<DWORD>(ERROR_DIRECTORY) : win32::ErrorFromErrno(errno));
        return nullptr;
    }
    return std::make_unique<Folder>(std::move(root));
}

bool IsProgram(std::string const & path)
{
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & 0111) != 0;
}

} // namespace kvx
