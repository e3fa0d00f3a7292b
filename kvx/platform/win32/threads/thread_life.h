#pragma once

/// What the process does for its threads: their data, their ids, and what is left to do when one has ended by itself.

#include "kvx/platform/win32/waits.h"

namespace kvx::win32
{

/// What is to be there before the first thread of the process; false when the system refuses it. Any thread, any number
/// of times.
bool SetUpThreads() noexcept;

/// Has OnThreadEnd run at the end of the calling thread, whose data these are. False when the system refuses it.
bool NoteEndOf(ThreadData & data) noexcept;

/// The last thing that a thread does by itself, with its ThreadData.
void OnThreadEnd(void * pValue) noexcept;

} // namespace kvx::win32
