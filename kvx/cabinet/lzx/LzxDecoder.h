#pragma once

#include "kvx/cabinet/FolderCoder.h"

#include <memory>

namespace kvx::cabinet
{
/// A decoder of LZX (LzxFormat.h tells the format) with a window of 2^15 to 2^21 bytes, of which it takes 32 KiB more
/// and some tables from `memory`. Any other number of bits: std::invalid_argument.
///
/// `Decode` refuses what isn't LZX: incomplete and over-subscribed codes, but for a code of one symbol and for an empty
/// length code that no match asks for; matches that reach out of the window or before the begin, or over a frame's or
/// block's end; and input that is too short. Bytes that are left over are refused too, but behind a frame of less than
/// 32,768 bytes, which has to be the last.
KVX_API std::unique_ptr<FolderDecoder> MakeLzxDecoder(unsigned windowBits, std::pmr::memory_resource * memory);
} // namespace kvx::cabinet
