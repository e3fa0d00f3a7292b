#pragma once

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/FolderCoder.h"

#include <memory>

namespace kvx::cabinet
{
/// An encoder of LZX for a window of 2^15 to 2^21 bytes. Any other number of bits: std::invalid_argument.
KVX_API std::unique_ptr<FolderEncoder> MakeLzxEncoder(unsigned windowBits, Level level, bool translateCalls,
                                                      std::pmr::memory_resource * memory);
} // namespace kvx::cabinet
