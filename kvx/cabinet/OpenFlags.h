#pragma once

/// The flags of the open callbacks: those of the C library, by their numbers in the published interfaces, which other
/// hosts' libraries don't share.

namespace kvx::cabinet
{
inline constexpr int OPEN_WRITE = 0x0001;
inline constexpr int OPEN_READ_WRITE = 0x0002;
inline constexpr int OPEN_APPEND = 0x0008;
inline constexpr int OPEN_RANDOM = 0x0010;
inline constexpr int OPEN_SEQUENTIAL = 0x0020;
inline constexpr int OPEN_TEMPORARY = 0x0040; ///< deleted when it is closed
inline constexpr int OPEN_CREATE = 0x0100;
inline constexpr int OPEN_TRUNCATE = 0x0200;
inline constexpr int OPEN_EXCLUSIVE = 0x0400;
inline constexpr int OPEN_SHORT_LIVED = 0x1000;
inline constexpr int OPEN_TEXT = 0x4000;
inline constexpr int OPEN_BINARY = 0x8000;

inline constexpr int OPEN_PERMISSION_READ = 0x0100;
inline constexpr int OPEN_PERMISSION_WRITE = 0x0080;
} // namespace kvx::cabinet
