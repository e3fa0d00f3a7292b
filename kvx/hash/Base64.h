#pragma once

/// Base64 (RFC 4648, the standard alphabet) over plain memory. The text may be in lines of 76 characters that are
/// parted by CR LF, with none at its end. Any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kvx::hash
{
enum Base64Flags : std::uint32_t
{
    BASE64_NO_FILL = 1, ///< no "=" behind a last group that isn't full
    BASE64_NO_LINES = 2
};

/// The number of characters that EncodeBase64 writes.
KVX_API std::size_t GetBase64Length(std::size_t size, std::uint32_t flags);

/// Writes exactly GetBase64Length characters and no NUL; gives that number. `data` and `out` don't overlap.
KVX_API std::size_t EncodeBase64(std::uint8_t const * data, std::size_t size, char * out, std::uint32_t flags);
KVX_API std::size_t EncodeBase64(std::uint8_t const * data, std::size_t size, WCHAR * out, std::uint32_t flags);

/// What came of decoding.
struct Base64Decoded
{
    std::size_t nSize = 0;    ///< bytes that the text stands for, also where they didn't fit
    std::size_t nWritten = 0; ///< those that were written: whole groups, as many as fitted
};

/// Decodes whatever there is, up to a NUL or the end: characters that are no digits, "=" among them, are passed over,
/// and up to four digits in a row of groups give their whole bytes. Never writes beyond `room`; a null `out` counts.
KVX_API Base64Decoded DecodeBase64Loosely(std::string_view text, std::uint8_t * out, std::size_t room);

/// Where a text is not what an encoder writes; NO_FAULT if it is.
inline constexpr std::size_t NO_FAULT = static_cast<std::size_t>(-1);

/// Decodes a text that EncodeBase64 may have written, with or without fill characters and with line ends (CR LF, or LF
/// alone) at any place, and nothing else. `out` holds at least three bytes for each four characters, and three more;
/// `size` becomes the number of bytes before the fault.
/// @return the index of the first character that doesn't belong there (the length: the text breaks off), or NO_FAULT. A
/// digit whose unused bits aren't zero doesn't belong there either: only one text stands for the bytes.
KVX_API std::size_t DecodeBase64Strictly(std::string_view text, std::uint8_t * out, std::size_t & size);
} // namespace kvx::hash
