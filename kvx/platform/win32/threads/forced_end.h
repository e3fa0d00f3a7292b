#pragma once

/// Threads that others end.

namespace kvx::win32
{

/// The signal that asks a thread to stand still, or to end. No thread of this layer blocks it.
int GetTerminationSignal() noexcept;

/// Sets its handler; once in a process.
void HandleTerminationSignal() noexcept;

/// Frees what terminated threads left: their stacks and their data, once the system is done with them.
void BuryCorpses() noexcept;

} // namespace kvx::win32
