#pragma once

/// The files behind the name of a pipe, in the user's private folder: docs/wire-protocol.md tells what each is for.

#include "kvx/platform/win32/unique_fd.h"

#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kvx::win32
{

/// The files of one process that serves a name. The "+" occurs in no name.
struct SlotFiles
{
    SlotFiles(std::string const & strFile, int nSlot)
        : strSocket(nSlot == 0 ? strFile : strFile + '+' + std::to_string(nSlot)), strLock(strSocket + "+lock"),
          strBusy(strSocket + "+busy"), strNew(strSocket + "+new")
    {
    }

    std::string strSocket; ///< there while an instance is free
    std::string strLock;   ///< locked while the process lives and has instances
    std::string strBusy;   ///< the socket while no instance is free
    std::string strNew;    ///< the socket before it listens
};

/// An address by way of the opened folder: paths of sockets are short, those of folders needn't be.
sockaddr_un AddressOf(UniqueFd const & folder, std::string const & strFile);
inline sockaddr const * Generic(sockaddr_un const & address)
{
    return reinterpret_cast<sockaddr const *>(&address);
}

/// What is locked of a lock file.
flock WholeFile();

enum class NameState
{
    Missing,
    Busy,
    Free
};

/// Whether any process serves the name, and has a free instance.
NameState LookForPipe(UniqueFd const & folder, std::string const & strFile);

} // namespace kvx::win32
