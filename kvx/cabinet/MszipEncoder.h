#pragma once

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/FolderCoder.h"

#include <memory>

namespace kvx::cabinet
{
/// An encoder of MSZIP: see MszipDecoder.h.
KVX_API std::unique_ptr<FolderEncoder> MakeMszipEncoder(Level level, std::pmr::memory_resource * memory);
} // namespace kvx::cabinet
