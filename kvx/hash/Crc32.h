#pragma once

/// CRC-32 as in IEEE 802.3, gzip and ZIP: polynomial 0xEDB88320, reflected, start and end inverted.

#include "kvx/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::hash
{
/// The checksum of data that follow others with the checksum `previous`: 0 at the begin, which is also what no data at
/// all have. Any thread.
KVX_API std::uint32_t Crc32(std::span<std::uint8_t const> data, std::uint32_t previous = 0);
} // namespace kvx::hash
