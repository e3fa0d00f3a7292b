// Serves a SQLite file, until its input ends:  example_sql_service nt_pipe:people people.sqlite

#include "SqliteProvider.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/transport/MsgListener.h"

#include <cstdio>
#include <iostream>

int main(int argc, char ** argv)
{
    auto const args = kvx::GetProgramArguments(argc, argv);
    if (args.size() != 2)
    {
        std::fputs("Tell me where to listen and the file, for example nt_pipe:people people.sqlite\n", stderr);
        return 1;
    }
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    if (!dispatcher.RegisterProvider(_T("db"), new CSqliteProvider(args[1]), 1))
    {
        std::fputs("The file can't be opened.\n", stderr);
        return 1;
    }
    CMsgListener * const listener = dispatcher.RegisterListener(_T(""), kvx::FromUtf8(args[0]), 1);
    if (!listener || !listener->WaitUntilListening(INFINITE))
    {
        std::fputs("I can't listen there.\n", stderr);
        return 1;
    }
    std::puts("Ready.");
    std::fflush(stdout);
    for (std::string line; std::getline(std::cin, line);)
    {
    }
    listener->StopListener();
    return 0;
}
