#pragma once

#include "kvx/cabinet/CallbackFile.h"

#include <array>
#include <cstdint>
#include <list>
#include <memory_resource>
#include <span>

namespace kvx::cabinet
{
/// Bytes that wait in temporary files until they are read in the order in which they were written; what has been read
/// is gone. Files behind callbacks have positions of 31 bits: a long queue takes several files, one behind the other,
/// and each is closed and deleted when it has been read.
class CabSpool
{
public:
    /// Creates the first file. No file gets more than `fileSize` bytes, but for a single piece that has more.
    CabSpool(CallbackHost const & host, std::pmr::memory_resource * memory, LONG fileSize = 0x10000000);

    void Write(std::span<std::uint8_t const> data);
    void Read(std::span<std::uint8_t> data);

private:
    class TemporaryFile
    {
    public:
        explicit TemporaryFile(CallbackHost const & host);
        ~TemporaryFile();

        CallbackFile file;
        LONG written = 0;
        LONG read = 0;
        LONG position = 0; // the file's own

    private:
        CallbackHost const & m_host;
        std::array<char, NAME_ROOM> m_name{};
        bool m_bExists = false;
    };

    CallbackHost const & m_host;
    LONG m_nFileSize;
    std::pmr::list<TemporaryFile> m_files;

    static void MoveTo(TemporaryFile & file, LONG position);
};
} // namespace kvx::cabinet
