#pragma once

/// LZX's translation of x86 calls: the distance behind a byte 0xE8 becomes the place in the folder that it means, so
/// that calls of one function look alike. It goes frame by frame; a frame's last ten bytes hold no call.

#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::cabinet
{
/// What our encoder tells as the size for the translation. Only calls to places below it are translated, in folders of
/// any size; much larger ones would take more of what only looks like a call.
inline constexpr std::int32_t CALL_TRANSLATION_SIZE = 0x8000000;

/// Translates the calls of the frame of this number in place. From a certain number on there is nothing to do.
void TranslateCalls(std::span<std::uint8_t> frame, std::uint64_t number, std::int32_t size);
/// The reverse.
void UntranslateCalls(std::span<std::uint8_t> frame, std::uint64_t number, std::int32_t size);
} // namespace kvx::cabinet
