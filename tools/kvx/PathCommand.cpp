#include "CommandLine.h"
#include "Commands.h"
#include "DisplayText.h"
#include "FileNames.h"
#include "Output.h"

#include "kvx/files/FilePath.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/msgdata/MsgCursor.h"
#include "kvx/platform/Terminal.h"

#include <CLI/App.hpp>

#include <memory>
#include <string>
#include <vector>

namespace
{
struct PathOptions
{
    std::vector<std::string> texts;
    CUtilities::ExpandPathOption view = CUtilities::expandDefault;
    Format format = Format::Table;
};

/// As ToStdout has it, but for bytes of a name that aren't UTF-8: a script gets them back as they came.
std::string ShowPath(CString::View path)
{
    static bool const s_bTerminal = kvx::IsTerminal(kvx::StandardStream::Output);
    std::string shown;
    std::size_t plain = 0;
    for (std::size_t i = 0; !s_bTerminal && i < path.size(); ++i)
    {
        if (path[i] >= 0xD800 && path[i] <= 0xDBFF)
        {
            ++i; // with what is behind it a character
        }
        else if (path[i] >= 0xDC80 && path[i] <= 0xDCFF)
        {
            shown += ToStdout(path.substr(plain, i - plain)).strText;
            shown += static_cast<char>(path[i] - 0xDC00);
            plain = i + 1;
        }
    }
    return shown + ToStdout(path.substr(plain)).strText;
}

int RunExpand(PathOptions const & options)
{
    StandardOutput out;
    CMsgResponse response;
    CMsgCursor rows(response);
    rows.SetRowSetName(_T("paths"));
    for (std::string const & given : options.texts)
    {
        CString const text = ToFileName(given);
        CString const path = CUtilities::ExpandPath(text, options.view);
        if (options.format == Format::Table)
        {
            out << ShowPath(path) << "\n"; // for scripts: the path and nothing else
            continue;
        }
        rows.AppendRow();
        rows[_T("text")] = text;
        rows[_T("path")] = path;
        rows[_T("exists")] = CUtilities::FileExists(path);
    }
    return options.format == Format::Table ? ReportWritten(out.Finish()) : PrintResponse(response, options.format);
}

int RunSplit(PathOptions const & options)
{
    CMsgResponse response;
    CMsgCursor rows(response);
    rows.SetRowSetName(_T("commands"));
    for (std::string const & given : options.texts)
    {
        CString program;
        CString arguments;
        bool const bSplit = CUtilities::SplitCommandLine(ToFileName(given), program, arguments);
        CFilePath const path(program);
        rows.AppendRow();
        rows[_T("program")] = program;
        rows[_T("arguments")] = arguments;
        // A line without quotes is split in any case.
        rows[_T("found")] =
            static_cast<int>(bSplit && CUtilities::FileExists(program) && !CUtilities::DirectoryExists(program));
        rows[_T("drive")] = path.GetDrive();
        rows[_T("directory")] = path.GetDirectory();
        rows[_T("file")] = path.GetFile();
        rows[_T("extension")] = path.GetExtension();
    }
    return PrintResponse(response, options.format);
}
} // namespace

void AddPathCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<PathOptions>();
    CLI::App * const path = app.add_subcommand("path", "Expand path templates and split command lines");
    path->require_subcommand(1);
    path->footer("Examples:\n"
                 "  kvx path expand '%appdata%\\maker' '%programfiles64%\\x'\n"
                 "  kvx path split 'c:\\program files\\app\\run me.exe /quiet' --format json\n"
                 "\n"
                 "What is given is in lower case, but for the folder where a program was found. docs/porting.md tells "
                 "where the folders lie.");

    CLI::App * const expand =
        path->add_subcommand("expand", "Replace a folder's token at the start, and variables of the environment");
    expand->add_option("TEXT", options->texts, "The templates")->required();
    AddChoice<CUtilities::ExpandPathOption>(*expand, "--view", options->view, "Whose folders of a 64-bit system",
                                            {{"default", CUtilities::expandDefault},
                                             {"32", CUtilities::expand32Bit},
                                             {"64", CUtilities::expand64Bit},
                                             {"move", CUtilities::expandMoved},
                                             {"existing", CUtilities::expandExisting}});
    AddFormatOption(*expand, options->format);
    expand->callback([&run, options] { run = [options] { return RunExpand(*options); }; });

    CLI::App * const split = path->add_subcommand(
        "split", "Part a program from its arguments by looking for it, and show its path in parts");
    split->add_option("TEXT", options->texts, "The command lines")->required();
    AddFormatOption(*split, options->format);
    split->callback([&run, options] { run = [options] { return RunSplit(*options); }; });
}
