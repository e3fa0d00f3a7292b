#pragma once

/// The commands of the program. Each adds its part of the command line; when its words have been parsed it leaves in
/// `run` what is to be done, which gives the exit status: 0, or 1 with an error line on stderr.

#include <functional>

namespace CLI
{
class App;
}

using Run = std::function<int()>;

void AddServeCommand(CLI::App & app, Run & run);
void AddCallCommand(CLI::App & app, Run & run);
void AddWatchCommand(CLI::App & app, Run & run);
void AddBenchCommand(CLI::App & app, Run & run);
void AddRegCommand(CLI::App & app, Run & run);
void AddHashCommand(CLI::App & app, Run & run);
void AddPathCommand(CLI::App & app, Run & run);
void AddSqlCommand(CLI::App & app, Run & run);
void AddCabCommand(CLI::App & app, Run & run);
void AddXmlCommand(CLI::App & app, Run & run);
