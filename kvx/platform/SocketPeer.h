#pragma once

/// What sockets can't tell by reading.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

namespace kvx
{
/// Whether the other side of a stream sends no more, even if some of what it has sent isn't read yet, or the
/// connection is broken. False for what is no socket.
KVX_API bool HasPeerEnded(SOCKET hSocket);
} // namespace kvx
