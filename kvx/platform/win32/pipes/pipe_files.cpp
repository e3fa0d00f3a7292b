#include "kvx/platform/win32/pipes/pipe_files.h"

#include "kvx/platform/win32/pipes.h"

#include <cstdio>

#include <unistd.h>

namespace kvx::win32
{

sockaddr_un AddressOf(UniqueFd const & folder, std::string const & strFile)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.Get(), strFile.c_str());
    return address;
}

flock WholeFile()
{
    flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

namespace
{

bool IsServed(UniqueFd const & folder, SlotFiles const & files)
{
    UniqueFd const file(::openat(folder.Get(), files.strLock.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    flock lock = WholeFile();
    return file && ::fcntl(file.Get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool IsThere(UniqueFd const & folder, std::string const & strFile)
{
    return ::faccessat(folder.Get(), strFile.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

} // namespace

NameState LookForPipe(UniqueFd const & folder, std::string const & strFile)
{
    NameState state = NameState::Missing;
    for (int nSlot = 0; nSlot < MAX_PIPE_SERVERS; ++nSlot)
    {
        SlotFiles const files(strFile, nSlot);
        if (!IsServed(folder, files))
        {
            continue;
        }
        if (IsThere(folder, files.strSocket))
        {
            return NameState::Free;
        }
        state = NameState::Busy;
    }
    return state;
}

} // namespace kvx::win32
