#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/threads/KVXBaseApp.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <cstdio>
#include <new>

namespace
{
int RunCommand(Run const & run)
{
    try
    {
        return run();
    }
    catch (CMemoryException * failure)
    {
        failure->Delete();
    }
    catch (CException * failure)
    {
        WCHAR text[1024] = {};
        failure->GetErrorMessage(text, static_cast<UINT>(std::size(text)) - 1);
        failure->Delete();
        ReportError(ERROR_INTERNAL_ERROR, text);
        return 1;
    }
    catch (std::bad_alloc const &)
    {
    }
    ReportSystemError(ERROR_NOT_ENOUGH_MEMORY);
    return 1;
}
} // namespace

int main(int argc, char ** argv)
{
    std::vector<std::string> const words = kvx::GetProgramArguments(argc, argv);
    if (!kvx::IsOpen(kvx::StandardStream::Output))
    {
        ReportError(ERROR_INVALID_HANDLE, _T("stdout is closed: give it a place to go, such as the null device"));
        return 1;
    }

    Run run;
    CLI::App app("Serves, calls, watches and measures KVXBase5 services; edits the registry; SQL, XML, cabinets, paths "
                 "and digests.",
                 "kvx");
    app.allow_windows_style_options(false); // a word may be a path that begins with a slash, on each host
    app.set_version_flag("--version", "kvx " KVX_PROGRAM_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.require_subcommand(1);
    app.footer(
        "Examples:\n"
        "  kvx serve tcp:127.0.0.1:4100\n"
        "  kvx call tcp:127.0.0.1:4100 host.files.list path=/usr/include limit=10\n"
        "  kvx watch tcp:127.0.0.1:4100 host.tick,host.log\n"
        "  kvx bench tcp:127.0.0.1:4100 host.echo text=hello --count 10000 --clients 4\n"
        "\n"
        "Exit status: 0, 1 if the call or the connection failed (error CODE: TEXT on stderr), 2 for wrong usage. "
        "A reader of stdout that goes away is no failure.\n"
        "kvx COMMAND --help tells more.");
    AddServeCommand(app, run);
    AddCallCommand(app, run);
    AddWatchCommand(app, run);
    AddBenchCommand(app, run);
    AddRegCommand(app, run);
    AddHashCommand(app, run);
    AddPathCommand(app, run);
    AddSqlCommand(app, run);
    AddXmlCommand(app, run);
    AddCabCommand(app, run);
    try
    {
        app.parse(std::vector(words.rbegin(), words.rend())); // as the parser takes them
    }
    catch (CLI::ParseError const & error)
    {
        return AnswerParser(app, words, error);
    }

    CKVXBaseApp instance;
    instance.InitInstance();
    int const status = RunCommand(run);
    // The tree with the listener and its queue goes while the pool still has its threads; the log goes last.
    CMsgDispatcher::GetInstance()->Terminate();
    instance.ExitInstance();
    CLogManager::Terminate();
    return status;
}
