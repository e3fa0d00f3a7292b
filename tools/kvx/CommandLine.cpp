#include "CommandLine.h"

#include "DisplayText.h"
#include "StandardOutput.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>

namespace
{
constexpr int WRONG_USAGE = 2;
constexpr std::size_t HELP_WIDTH = 80;

constexpr std::string_view UNITS = "KMG";

std::optional<ULONGLONG> ParseSize(std::string_view word)
{
    ULONGLONG number = 0;
    char const * const wordEnd = word.data() + word.size();
    auto const [end, error] = std::from_chars(word.data(), wordEnd, number);
    auto const unit = end == wordEnd ? UNITS.npos : UNITS.find(*end);
    std::size_t const shift = unit == UNITS.npos ? 0 : 10 * (unit + 1);
    bool const bWhole = end + (unit == UNITS.npos ? 0 : 1) == wordEnd;
    bool const bGood = error == std::errc() && bWhole && number <= std::numeric_limits<ULONGLONG>::max() >> shift;
    return bGood ? std::optional(number << shift) : std::nullopt;
}

std::string FormatSize(ULONGLONG size)
{
    std::size_t unit = 0;
    for (; unit < UNITS.size() && size != 0 && size % 1024 == 0; ++unit)
    {
        size /= 1024;
    }
    return std::to_string(size) + (unit == 0 ? "" : std::string(1, UNITS[unit - 1]));
}

/// How many letters have to be changed, put in or left out to make one word of the other.
std::size_t GetDistance(std::string_view from, std::string_view to)
{
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i)
    {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < to.size(); ++j)
        {
            std::size_t const changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = std::exchange(row[j + 1], std::min({changed, row[j] + 1, row[j + 1] + 1}));
        }
    }
    return row.back();
}

std::vector<CLI::App const *> ListCommands(CLI::App const & app)
{
    return app.get_subcommands([](CLI::App const *) { return true; });
}

std::vector<std::string> GetNames(CLI::App const & app)
{
    std::vector<std::string> names;
    for (CLI::App const * const command : ListCommands(app))
    {
        names.push_back(command->get_name());
    }
    return names;
}

/// The name that is nearest to a word, or all if none is near.
std::string Advise(std::string const & word, std::vector<std::string> const & names)
{
    auto const nearest =
        std::ranges::min_element(names, {}, [&](std::string const & name) { return GetDistance(word, name); });
    bool const bNear = GetDistance(word, *nearest) <= std::max<std::size_t>(1, nearest->size() / 2);
    return bNear ? "did you mean '" + *nearest + "'?" : "use " + JoinWords(names);
}

/// What is wrong with the first of the words if it should be a command of the app.
std::string CheckCommand(CLI::App const & app, std::string const & word)
{
    std::vector<std::string> const names = GetNames(app);
    bool const bGood = names.empty() || word.starts_with('-') || std::ranges::find(names, word) != names.end();
    return bGood ? std::string() : "'" + word + "' is no command: " + Advise(word, names);
}

/// Names an option that isn't there: the parser complains of the word behind it.
std::string CheckOptions(CLI::App const & command, std::vector<std::string> const & words)
{
    std::vector<std::string> names;
    for (CLI::Option const * const option : command.get_options())
    {
        if (!option->get_positional())
        {
            names.push_back(option->get_name());
        }
    }
    for (std::string const & word : words)
    {
        std::string const name = word.substr(0, word.find('='));
        if (name == "--")
        {
            break;
        }
        if (name.starts_with("--") && !command.get_option_no_throw(name))
        {
            return "'" + name + "' is no option: " + Advise(name, names);
        }
    }
    return {};
}

/// Breaks lines that are too long for a terminal, between words. What follows goes below the text that was broken.
std::string Wrap(std::string_view text)
{
    std::string wrapped;
    while (!text.empty())
    {
        std::string line(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        auto const words = std::min(line.find_first_not_of(' '), line.size());
        auto const gap = line.find("  ", words);
        auto const indent = std::min(gap == line.npos ? words : line.find_first_not_of(' ', gap), HELP_WIDTH / 2);
        while (line.size() > HELP_WIDTH)
        {
            auto const end = line.rfind(' ', HELP_WIDTH);
            if (end == line.npos || end <= indent)
            {
                break; // one long word
            }
            wrapped += line.substr(0, end) + "\n";
            line = std::string(indent, ' ') + line.substr(end + 1);
        }
        wrapped += line + "\n";
    }
    return wrapped;
}

int Print(std::string_view text)
{
    StandardOutput out;
    out << text;
    return ReportWritten(out.Finish());
}
} // namespace

std::string JoinWords(std::vector<std::string> const & words)
{
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
    {
        text += i == 0 ? "" : i + 1 < words.size() ? ", " : " or ";
        text += words[i];
    }
    return text;
}

CLI::Option * AddSize(CLI::App & command, std::string const & name, ULONGLONG & target, std::string const & help)
{
    return command
        .add_option_function<std::string>(
            name, [&target](std::string const & word) { target = ParseSize(word).value_or(target); }, help)
        ->check([](std::string const & word)
                { return ParseSize(word) ? std::string() : "'" + word + "' is no size: use 4096, 512K, 64M or 2G"; })
        ->type_name("SIZE")
        ->default_str(FormatSize(target));
}

int AnswerParser(CLI::App const & app, std::vector<std::string> const & words, CLI::ParseError const & error)
{
    CLI::App const * command = &app;
    std::string name = app.get_name();
    std::string problem;
    for (std::string const & word : words)
    {
        problem = CheckCommand(*command, word);
        auto const commands = ListCommands(*command);
        auto const next = std::ranges::find(commands, word, [](CLI::App const * known) { return known->get_name(); });
        if (next == commands.end())
        {
            break;
        }
        command = *next;
        name += " " + word;
    }
    problem = problem.empty() ? CheckOptions(*command, words) : problem;
    if (problem.empty() && error.get_name() == "CallForHelp")
    {
        return Print(Wrap(app.help()));
    }
    if (problem.empty() && error.get_name() == "CallForVersion")
    {
        return Print(std::string(error.what()) + "\n");
    }
    if (problem.empty())
    {
        bool const bNone = error.get_name() == "RequiredError" && !ListCommands(*command).empty();
        problem = bNone ? "a command is wanted: " + JoinWords(GetNames(*command)) : error.what();
    }
    WriteError(name + ": " + ToDisplay(kvx::FromUtf8(problem)).strText + "\nRun '" + name + " --help' for more.\n");
    return WRONG_USAGE;
}
