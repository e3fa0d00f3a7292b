#pragma once

/// Writing files below one folder and nowhere else, whatever stands in it.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kvx
{
/// A file that grows under a name of its own, and takes its place when it is finished; until then it goes with the
/// object.
class KVX_API ConfinedFile
{
public:
    virtual ~ConfinedFile() = default;
    /// False with the last error, ERROR_DISK_FULL among others.
    virtual bool Write(std::span<std::uint8_t const> data) = 0;
    /// Gives the file its times and attributes, and its name: a file that has it goes, a link does itself. A program
    /// may be run, where the host keeps that with a file. False with the last error.
    virtual bool Finish(FILETIME const * written, bool isReadOnly, bool isProgram) = 0;
};

/// A folder for files to be written below. No symbolic link in it is ever followed, also none that another process
/// makes meanwhile. Threads: one at a time.
class KVX_API ConfinedFolder
{
public:
    virtual ~ConfinedFolder() = default;

    /// The folder, which is made if it isn't there; links on the way to it are followed. `path` is UTF-8, or whatever
    /// bytes the host's names have. Null with the last error.
    static std::unique_ptr<ConfinedFolder> Open(std::string const & path);

    /// Begins a file: the names of folders, which are made where they are missing, and its own. Null with the last
    /// error: ERROR_INVALID_NAME for an empty name, ".", ".." and one with a separator, on Windows also for one that
    /// names a device or a stream or has an end that the system drops; ERROR_CANT_ACCESS_FILE where a link or a file
    /// stands in the way, ERROR_DIRECTORY where a folder has the file's name.
    virtual std::unique_ptr<ConfinedFile> Create(std::vector<std::string> const & names) = 0;
};

/// Whether the host lets the file at this path be run as a program. False where that isn't a file's attribute.
KVX_API bool IsProgram(std::string const & path);
} // namespace kvx
