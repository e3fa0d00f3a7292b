#pragma once

#include "kvx/cabinet/FolderCoder.h"

#include <memory>

namespace kvx::cabinet
{
/// A decoder of LZX with a window of 2^15 to 2^21 bytes. Any other number of bits: std::invalid_argument.
KVX_API std::unique_ptr<FolderDecoder> MakeLzxDecoder(unsigned windowBits, std::pmr::memory_resource * memory);
} // namespace kvx::cabinet
