#pragma once

/// The layout of cabinet files ([MS-CAB]); numbers are little-endian.
///
///     header    "MSCF", size, first file's offset, version, counts, flags, set, number, [reserves], [names]
///     folders   offset of the first block, number of blocks, compression type, [reserve]
///     files     size, offset in the folder, folder, date, time, attributes, name and NUL
///     blocks    checksum, compressed size, uncompressed size, [reserve], data

#include "kvx/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::cabinet
{
inline constexpr char SIGNATURE[] = {'M', 'S', 'C', 'F'};
inline constexpr std::uint8_t VERSION_MINOR = 3;
inline constexpr std::uint8_t VERSION_MAJOR = 1;
inline constexpr std::size_t HEADER_SIZE = 36;       ///< of the fields that each has
inline constexpr std::size_t RESERVE_SIZES_SIZE = 4; ///< two bytes for the header's, one for folders', one for blocks'
inline constexpr std::size_t FOLDER_SIZE = 8;
inline constexpr std::size_t FILE_SIZE = 16; ///< before the name
inline constexpr std::size_t BLOCK_HEADER_SIZE = 8;
inline constexpr std::size_t MAX_NAME = 255; ///< of files, cabinets and disks, without the NUL

inline constexpr std::uint16_t FLAG_PREVIOUS = 1; ///< the names of the previous cabinet and its disk are there
inline constexpr std::uint16_t FLAG_NEXT = 2;
inline constexpr std::uint16_t FLAG_RESERVE = 4;

// A file's folder number, where it is not all in this cabinet.
inline constexpr std::uint16_t CONTINUED_FROM_PREVIOUS = 0xFFFD;
inline constexpr std::uint16_t CONTINUED_TO_NEXT = 0xFFFE;
inline constexpr std::uint16_t CONTINUED_BOTH = 0xFFFF;

inline std::uint16_t GetWord(std::uint8_t const * at)
{
    return static_cast<std::uint16_t>(at[0] | at[1] << 8);
}
inline std::uint32_t GetDword(std::uint8_t const * at)
{
    return GetWord(at) | static_cast<std::uint32_t>(GetWord(at + 2)) << 16;
}
inline void PutWord(std::uint8_t * at, std::uint16_t value)
{
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}
inline void PutDword(std::uint8_t * at, std::uint32_t value)
{
    PutWord(at, static_cast<std::uint16_t>(value));
    PutWord(at + 2, static_cast<std::uint16_t>(value >> 16));
}

/// The checksum of a block's data that follow others with the checksum `seed`: the exclusive or of its words of four
/// bytes; up to three bytes at the end count from the highest on. A block's is that of its data, and then, with that as
/// the seed, of its header behind the checksum (sizes and reserve).
KVX_API std::uint32_t Checksum(std::span<std::uint8_t const> data, std::uint32_t seed = 0);
} // namespace kvx::cabinet
