#pragma once

/// Reads a cabinet through the caller's callbacks.

#include "kvx/cabinet/CabDecompression.h"
#include "kvx/cabinet/CabFormat.h"

#include <memory_resource>
#include <vector>

namespace kvx::cabinet
{
/// An open cabinet. It is read at offsets from where it stood at first, and each read begins with a seek: several
/// handles may stand for one file of the caller's, and have its position in common.
class CabSource
{
public:
    explicit CabSource(CabDecompression::Callbacks const & callbacks) : m_callbacks(callbacks) {}
    CabSource(CabSource const &) = delete;
    CabSource & operator=(CabSource const &) = delete;
    ~CabSource() { Close(); }

    bool Open(char const * path);
    /// Reads from a handle that stays the caller's.
    bool Attach(INT_PTR hf);
    void Close();
    bool IsOpen() const { return m_handle != -1; }

    /// From its begin to the file's end, in bytes; 0 where that isn't known.
    std::uint64_t GetSize() const;
    /// As many bytes as there are, up to `size`.
    std::size_t ReadAt(std::uint32_t offset, void * target, std::size_t size);

private:
    CabDecompression::Callbacks const & m_callbacks;
    INT_PTR m_handle = -1;
    bool m_isAttached = false;
    LONG m_base = 0;
};

/// Reads a row of things that follow each other, with one call of the callback for many.
class CabBuffer
{
public:
    CabBuffer(std::size_t size, std::pmr::memory_resource * memory) : m_bytes(size, memory) {}

    /// Reads from there on. The source stays open as long as it is read from.
    void Start(CabSource & source, std::uint32_t offset);
    /// Goes on elsewhere in the same source.
    void GoTo(std::uint32_t offset);
    std::uint32_t GetOffset() const { return m_offset + static_cast<std::uint32_t>(m_at); }
    /// Exactly `size` bytes, at most the buffer's; valid up to the next call. Null if there are fewer.
    std::uint8_t const * Read(std::size_t size);
    /// The text up to a NUL, at most `maxLength` bytes without it, null if there is none. Valid up to the next call.
    char * ReadText(std::size_t maxLength);

private:
    std::pmr::vector<std::uint8_t> m_bytes;
    CabSource * m_source = nullptr;
    std::uint32_t m_offset = 0; // in the cabinet, of the buffer's begin
    std::size_t m_at = 0;
    std::size_t m_end = 0;

    bool Fill(std::size_t size);
};

/// What stands at the begin of a cabinet.
struct CabHeader
{
    std::uint32_t size;
    std::uint32_t filesAt;
    std::uint32_t foldersAt;
    std::uint16_t folders;
    std::uint16_t files;
    std::uint16_t flags;
    std::uint16_t setID;
    std::uint16_t number;
    std::uint8_t folderReserve = 0;
    std::uint8_t blockReserve = 0;
    char previousName[MAX_NAME + 1] = {};
    char previousDisk[MAX_NAME + 1] = {};
    char nextName[MAX_NAME + 1] = {};
    char nextDisk[MAX_NAME + 1] = {};

    /// FDIERROR_NONE, FDIERROR_NOT_A_CABINET, FDIERROR_UNKNOWN_CABINET_VERSION or FDIERROR_CORRUPT_CABINET.
    FDIERROR Read(CabSource & source, CabBuffer & buffer);
};
} // namespace kvx::cabinet
