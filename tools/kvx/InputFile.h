#pragma once

/// A file that a command reads.

#include "kvx/platform/host.h"

#include <cstdio>
#include <memory>
#include <span>
#include <string>

/// A file of the command line; `-` is stdin. The name is taken by its very bytes, for lists have such: elsewhere a
/// backslash parts folders, and upper and lower case are the same.
class InputFile
{
public:
    /// Raises CFileException, as Read does.
    explicit InputFile(std::string const & name);

    /// In bytes; 0 where it isn't known.
    ULONGLONG GetSize() const { return m_nSize; }
    /// The number of bytes, 0 at the end.
    std::size_t Read(std::span<BYTE> room);

private:
    struct Closer
    {
        void operator()(std::FILE * file) const
        {
            if (file != stdin)
            {
                std::fclose(file);
            }
        }
    };
    std::unique_ptr<std::FILE, Closer> m_file;
    ULONGLONG m_nSize = 0;
};
