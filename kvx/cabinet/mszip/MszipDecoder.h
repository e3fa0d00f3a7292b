#pragma once

#include "kvx/cabinet/FolderCoder.h"

#include <memory>

namespace kvx::cabinet
{
/// A decoder of MSZIP: blocks that begin with "CK" and hold one DEFLATE stream (RFC 1951) each, whose history are the
/// 32,768 bytes before.
KVX_API std::unique_ptr<FolderDecoder> MakeMszipDecoder(std::pmr::memory_resource * memory);
} // namespace kvx::cabinet
