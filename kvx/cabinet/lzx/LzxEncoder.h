#pragma once

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/FolderCoder.h"

#include <memory>

namespace kvx::cabinet
{
/// An encoder of LZX (LzxFormat.h tells the format) for a window of 2^15 to 2^21 bytes. Any other number of bits:
/// std::invalid_argument. It keeps back up to 288 KiB. Of `memory` it takes 4 MiB and 7 bytes for each
/// byte of the window with Level::Fast, 14 MiB and 11 bytes with the others.
///
/// Fast searches few earlier places and takes the longest match, or the one behind it; the others weigh all ways
/// through a frame against one another, Best several times and with more matches to choose from.
KVX_API std::unique_ptr<FolderEncoder> MakeLzxEncoder(unsigned windowBits, Level level, bool translateCalls,
                                                      std::pmr::memory_resource * memory);
} // namespace kvx::cabinet
