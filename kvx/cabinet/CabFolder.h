#pragma once

#include "kvx/cabinet/CabFormat.h"
#include "kvx/cabinet/FolderCoder.h"

#include <cstdint>
#include <memory_resource>
#include <vector>

namespace kvx::cabinet
{
/// A file in a folder that is on its way into cabinets.
struct CabFileEntry
{
    std::size_t name; ///< where its name, with a NUL, stands among the folder's
    std::uint32_t size;
    std::uint32_t offset; ///< in the folder before compression
    std::uint16_t date;
    std::uint16_t time;
    std::uint16_t attributes;
};

/// A folder whose blocks are, or are going to be, in the spool.
struct CabFolder
{
    using allocator_type = std::pmr::polymorphic_allocator<>;

    std::uint16_t type;
    std::pmr::vector<CabFileEntry> files;
    std::pmr::vector<char> names;
    std::pmr::vector<std::uint16_t> blocks; ///< compressed sizes of those in the spool
    std::uint64_t uncompressedSize = 0;     ///< of all files
    std::uint64_t compressedSize = 0;       ///< of the blocks in the spool
    std::size_t submittedBlocks = 0;
    bool isLast = false; ///< no other folder will come behind it into its cabinet, nor a further cabinet

    CabFolder(std::uint16_t kind, allocator_type memory) : type(kind), files(memory), names(memory), blocks(memory) {}

    /// What the entries of the files take in a cabinet.
    std::uint64_t GetEntriesSize() const { return files.size() * FILE_SIZE + names.size(); }
};
} // namespace kvx::cabinet
