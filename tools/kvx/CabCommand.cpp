#include "CabCommand.h"

#include "CommandLine.h"
#include "Commands.h"
#include "DisplayText.h"
#include "FileNames.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/platform/Terminal.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>

void ReportNote(std::string const & name, std::string const & text)
{
    // Names out of a cabinet may hold what gives commands to a terminal.
    WriteError("note: " + ToDisplay(ToFileName(name)).strText + ": " + text + "\n");
}

std::string DecodeName(std::string const & bytes)
{
    std::string name = IsUtf8(bytes) ? bytes : kvx::ToUtf8(CUtilities::MB2W(bytes.c_str(), CP_ACP));
    std::ranges::replace(name, '\\', '/');
    return name;
}

bool IsEndWanted()
{
    return kvx::WaitForEndSignal(0);
}

bool IsAmong(std::vector<std::string> const & patterns, std::string const & name)
{
    std::string const last = name.substr(name.rfind('/') + 1);
    return std::ranges::any_of(patterns,
                               [&](std::string pattern)
                               {
                                   // As shells complete them.
                                   while (pattern.starts_with("./"))
                                   {
                                       pattern.erase(0, 2);
                                   }
                                   while (pattern.size() > 1 && pattern.ends_with('/'))
                                   {
                                       pattern.pop_back();
                                   }
                                   return MatchesPattern(name, pattern) || MatchesPattern(last, pattern) ||
                                          name.starts_with(pattern + "/");
                               });
}

namespace
{
CLI::App * AddCabAction(CLI::App & cab, Run & run, std::shared_ptr<CabOptions> const & options, char const * name,
                        char const * help, int (*action)(CabOptions const &))
{
    CLI::App * const command = cab.add_subcommand(name, help);
    command->add_option("ARCHIVE", options->archive, "The cabinet; of a set the first one")->required();
    command->callback(
        [&run, options, action]
        {
            run = [options, action]
            {
                kvx::CatchEndSignals(); // temporary files go first
                return action(*options);
            };
        });
    return command;
}

void AddExclude(CLI::App & command, CabOptions & options, char const * help)
{
    // One a time, for a list would take the ARCHIVE too.
    command.add_option("--exclude", options.excludes, help)->allow_extra_args(false)->type_name("PATTERN");
}

constexpr char PATTERN_RULES[] = "A PATTERN is a name, with slashes, or that of a folder for all that is in it, or has "
                                 "* and ? for any characters; it "
                                 "is compared with the whole name and with its last part, with regard to case. ";

void AddCabCreate(CLI::App & cab, Run & run, std::shared_ptr<CabOptions> const & options)
{
    CLI::App * const create = AddCabAction(cab, run, options, "create", "Make a cabinet", CreateCabinet);
    create->add_option("FILE", options->files, "Files, and folders with all that is in them")->required();
    create->add_option("-C,--directory", options->directory, "Where the FILEs are, and their names begin");
    auto * const none = create->add_flag_callback(
        "--none", [options] { options->compression = tcompTYPE_NONE; }, "Store, without compression");
    auto * const mszip = create->add_flag_callback(
        "--mszip", [options] { options->compression = tcompTYPE_MSZIP; }, "Compress by MSZIP, which is the default");
    // A flag, for an option would take the ARCHIVE for its value.
    auto const bits = std::make_shared<int>(0);
    auto * const lzx =
        create->add_flag("--lzx{21}", *bits, "Compress by LZX, with a window of 2^15 to 2^21 bytes: --lzx=15 ...")
            ->check(CLI::Range(15, 21))
            ->each([options, bits](std::string const & given)
                   { options->compression = TCOMPfromLZXWindow(std::stoi(given)); });
    none->excludes(mszip)->excludes(lzx);
    mszip->excludes(lzx);
    AddChoice<kvx::cabinet::Level>(*create, "--level", options->level, "How hard to try",
                                   {{"default", kvx::cabinet::Level::Default},
                                    {"fast", kvx::cabinet::Level::Fast},
                                    {"best", kvx::cabinet::Level::Best}});
    AddSize(*create, "--max-size", options->maxSize,
            "Make a set: a.cab, a2.cab, ... for the ARCHIVE a.cab, of at most so many bytes");
    AddSize(*create, "--folder-size", options->folderSize,
            "Begin a new folder, which decompresses by itself, after so many bytes");
    create
        ->add_option("-j,--jobs", options->jobs,
                     "Threads; the cabinet doesn't depend on it (0: one for each processor)")
        ->check(CLI::Range(0, 256));
    AddExclude(*create, *options, "Leave out what matches, such as '*.o' or build");
    create->add_flag("-v,--verbose", options->isVerbose, "Print the names of the files");
    create->footer(PATTERN_RULES + std::string("\n\n") +
                   "Examples:\n"
                   "  kvx cab create docs.cab docs\n"
                   "  kvx cab create --lzx --exclude '*.o' source.cab -C /home/me project\n"
                   "  kvx cab create --max-size 1440K floppy.cab big.iso\n"
                   "\n"
                   "ARCHIVE - is stdout. Links in folders, and what is no file, are passed over with a note. A file "
                   "that can't be read gets an error "
                   "line, and the exit status is 1, but the others go in.");
}

void AddCabExtract(CLI::App & cab, Run & run, std::shared_ptr<CabOptions> const & options)
{
    CLI::App * const extract = AddCabAction(cab, run, options, "extract", "Extract the files", ExtractCabinet);
    extract->add_option("PATTERN", options->files, "Only these files, or folders; * and ? match any characters");
    extract->add_option("-C,--directory", options->directory, "Where they go; it is made if it isn't there");
    AddExclude(*extract, *options, "Pass over what matches");
    extract->add_flag("-v,--verbose", options->isVerbose, "Print the names of the files");
    extract->footer(
        PATTERN_RULES + std::string("\n\n") +
        "Examples:\n"
        "  kvx cab extract docs.cab\n"
        "  kvx cab extract setup.cab -C /tmp/setup '*.dll'\n"
        "\n"
        "Nothing is written outside the directory, or through a link in it: drives and leading separators are taken "
        "off "
        "the names, with a note, and files whose way leads up or through a link are refused. A file replaces another "
        "one when it is complete.");
}
} // namespace

void AddCabCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<CabOptions>();
    CLI::App * const cab = app.add_subcommand("cab", "Make, list, test and extract cabinets");
    cab->require_subcommand(1);
    cab->footer("Examples:\n"
                "  kvx cab create docs.cab docs\n"
                "  kvx cab list docs.cab --format csv\n"
                "  kvx cab extract docs.cab -C elsewhere\n"
                "\n"
                "Exit status: 0, 1 if something couldn't be done (error CODE: TEXT on stderr), 2 for wrong usage.");
    AddCabCreate(*cab, run, options);
    CLI::App * const list = AddCabAction(*cab, run, options, "list", "List the files", ListCabinet);
    AddFormatOption(*list, options->format);
    AddCabExtract(*cab, run, options);
    list->footer(
        "A set is listed as a whole. Times are local; attributes are read-only, hidden, system, archive, program.");
    CLI::App * const test = AddCabAction(*cab, run, options, "test",
                                         "Decompress all and check all checksums, and write nothing", TestCabinet);
    test->add_flag("-v,--verbose", options->isVerbose, "Print the names of the files");
    test->footer("The exit status is 0 if all is whole, and 1 with an error line that names the file where it isn't.");
}
