#pragma once

/// What a command line program asks of its host: arguments, terminal, and the wish of the user or the system that it
/// ends.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

#include <string>
#include <vector>

namespace kvx
{
enum class StandardStream
{
    Output,
    Error
};

/// The arguments without the program's name, as UTF-8. To be called once, at the start of main: it also makes the C
/// library's streams take and give UTF-8 bytes as they are, with no change of line ends, and a reader that has gone
/// makes a write to a stream fail, and no more. On Windows stdout and stderr then both keep what is written until a
/// flush.
KVX_API std::vector<std::string> GetProgramArguments(int argc, char ** argv);

/// False for a stream that the program was started without (`>&-`).
KVX_API bool IsOpen(StandardStream stream);

/// Whether somebody reads the stream on a terminal.
KVX_API bool IsTerminal(StandardStream stream);

/// Whether that terminal does what escape sequences say.
KVX_API bool TakesEscapes(StandardStream stream);

/// Right after a write of this thread to a stream has failed: whether its reader has gone.
KVX_API bool HasReaderGone();

/// Columns of the terminal that the standard output is; 0 if it is none or doesn't tell.
KVX_API int GetTerminalWidth();

/// From now on a request to end (SIGINT or SIGTERM; on Windows Ctrl+C, Ctrl+Break and closing of the console) no longer
/// ends the process but is kept for WaitForEndSignal. False with the thread's last error. Call it before the program
/// says that it is ready.
KVX_API bool CatchEndSignals();

/// Waits up to `timeout` milliseconds, or INFINITE: true once a request to end has come, and then for ever. Any thread.
KVX_API bool WaitForEndSignal(DWORD timeout);
} // namespace kvx
