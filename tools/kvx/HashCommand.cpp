#include "CommandLine.h"
#include "Commands.h"
#include "FileNames.h"
#include "InputFile.h"
#include "Output.h"
#include "ProgressBar.h"
#include "StandardOutput.h"

#include "kvx/hash/Crc32.h"
#include "kvx/hash/Md5Digest.h"
#include "kvx/hash/Sha1Digest.h"
#include "kvx/hash/Sha256Digest.h"
#include "kvx/platform/Terminal.h"

#include <CLI/App.hpp>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <variant>

namespace
{
using namespace kvx::hash;
using HashBytes = std::span<std::uint8_t const>;

class Crc32Digest
{
public:
    using Value = std::array<std::uint8_t, 4>;

    void Update(HashBytes data) { m_nValue = Crc32(data, m_nValue); }
    Value Final() const
    {
        return {static_cast<std::uint8_t>(m_nValue >> 24), static_cast<std::uint8_t>(m_nValue >> 16),
                static_cast<std::uint8_t>(m_nValue >> 8), static_cast<std::uint8_t>(m_nValue)};
    }

private:
    std::uint32_t m_nValue = 0;
};

using Digest = std::variant<Md5Digest, Sha1Digest, Sha256Digest, Crc32Digest>;

struct HashOptions
{
    std::string strAlgorithm = "md5";
    std::vector<std::string> files;
    bool bCheck = false;
};

Digest MakeDigest(std::string const & algorithm)
{
    return algorithm == "md5"     ? Digest(Md5Digest())
           : algorithm == "sha1"  ? Digest(Sha1Digest())
           : algorithm == "crc32" ? Digest(Crc32Digest())
                                  : Digest(Sha256Digest());
}

std::size_t GetDigits(std::string const & algorithm)
{
    return std::visit([]<class D>(D const &) { return 2 * std::tuple_size_v<typename D::Value>; },
                      MakeDigest(algorithm));
}

bool NeedsEscapes(std::string const & name)
{
    return name.find_first_of("\\\n\r") != std::string::npos;
}

/// A name as lists have it: on one line.
std::string EscapeName(std::string const & name)
{
    std::string escaped;
    for (char const c : name)
    {
        escaped += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : c == '\r' ? "\\r" : std::string(1, c);
    }
    return escaped;
}

/// Nothing for a text that EscapeName doesn't write.
std::optional<std::string> UnescapeName(std::string_view escaped)
{
    std::string name;
    for (std::size_t i = 0; i < escaped.size(); ++i)
    {
        if (escaped[i] != '\\')
        {
            name += escaped[i];
            continue;
        }
        char const c = i + 1 < escaped.size() ? escaped[++i] : '\0';
        if (c != '\\' && c != 'n' && c != 'r')
        {
            return std::nullopt;
        }
        name += c == 'n' ? '\n' : c == 'r' ? '\r' : c;
    }
    return name;
}

/// Runs the action; false, with an error line, if the file can't be opened or read.
template <class ACTION>
bool WithHashFile(std::string const & name, ACTION const & action)
{
    try
    {
        action();
        return true;
    }
    catch (CFileException * failure)
    {
        auto const code = static_cast<DWORD>(failure->m_lOsError);
        failure->Delete();
        ReportSystemError(code, ToFileName(name));
        return false;
    }
}

/// The digest of a file; nothing, with an error line, if it can't be read.
std::optional<std::string> HashFile(std::string const & algorithm, std::string const & name)
{
    constexpr std::size_t PIECE = 1 << 20;
    static std::vector<BYTE> & s_room = *new std::vector<BYTE>(PIECE);
    std::string digits;
    bool const bRead =
        WithHashFile(name,
                     [&]
                     {
                         InputFile input(name);
                         ProgressBar progress(input.GetSize());
                         Digest digest = MakeDigest(algorithm);
                         while (std::size_t const size = input.Read(s_room))
                         {
                             std::visit([&](auto & d) { d.Update(HashBytes(s_room).first(size)); }, digest);
                             progress.Add(size);
                         }
                         auto const append = [&](auto const & value)
                         {
                             for (std::uint8_t const byte : value)
                             {
                                 digits += "0123456789abcdef"[byte >> 4];
                                 digits += "0123456789abcdef"[byte & 15];
                             }
                         };
                         std::visit([&](auto & d) { append(d.Final()); }, digest);
                     });
    return bRead ? std::optional(digits) : std::nullopt;
}

/// What is written so far goes out where somebody may wait for it.
bool IsReaderThere(StandardOutput & out)
{
    static bool const s_bTerminal = kvx::IsTerminal(kvx::StandardStream::Output);
    return !s_bTerminal || out.Finish() == Written::Whole;
}

int PrintDigests(HashOptions const & options)
{
    bool bGood = true;
    StandardOutput out;
    for (std::string const & name : options.files)
    {
        std::optional<std::string> const digits = HashFile(options.strAlgorithm, name);
        bGood = bGood && digits;
        if (digits)
        {
            out << (NeedsEscapes(name) ? "\\" : "") << *digits << "  " << ShowName(EscapeName(name)) << "\n";
        }
        if (!IsReaderThere(out))
        {
            break;
        }
    }
    int const status = ReportWritten(out.Finish());
    return bGood ? status : 1;
}

/// A line of a list.
struct ListEntry
{
    std::string strDigits; // lower case
    std::string strName;
};

/// Nothing for a line that is none of a list for the algorithm. There are two forms: the digits, a blank, a blank or an
/// asterisk, and the name; or `SHA256 (name) = digits`. A backslash in front says that the name has escapes.
std::optional<ListEntry> ReadListEntry(std::string_view line, std::string const & algorithm)
{
    std::size_t const digits = GetDigits(algorithm);
    bool const bEscaped = line.starts_with('\\');
    line.remove_prefix(bEscaped ? 1 : 0);
    std::string tag = algorithm + " (";
    std::ranges::transform(tag, tag.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    constexpr std::string_view BETWEEN = ") = ";
    ListEntry entry;
    std::string_view name;
    if (line.starts_with(tag) && line.size() > tag.size() + BETWEEN.size() + digits &&
        line.substr(line.size() - digits - BETWEEN.size(), BETWEEN.size()) == BETWEEN)
    {
        entry.strDigits = line.substr(line.size() - digits);
        name = line.substr(tag.size(), line.size() - digits - BETWEEN.size() - tag.size());
    }
    else if (line.size() > digits + 2 && line[digits] == ' ' && (line[digits + 1] == ' ' || line[digits + 1] == '*'))
    {
        entry.strDigits = line.substr(0, digits);
        name = line.substr(digits + 2);
    }
    else
    {
        return std::nullopt;
    }
    for (char & c : entry.strDigits)
    {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
        {
            return std::nullopt;
        }
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    std::optional<std::string> const plain = bEscaped ? UnescapeName(name) : std::string(name);
    if (!plain || plain->find('\0') != std::string::npos)
    {
        return std::nullopt;
    }
    entry.strName = *plain;
    return entry;
}

/// The lines of a file, of which none takes more than a bounded room.
class ListLines
{
public:
    static constexpr std::size_t LONGEST = 65536;

    explicit ListLines(std::string const & name) : m_input(name) {}

    /// False at the end. A line that is too long comes as its begin, of LONGEST characters.
    bool Next(std::string & line)
    {
        line.clear();
        bool bAny = false;
        for (;;)
        {
            if (m_nAt == m_nFilled)
            {
                m_nAt = 0;
                m_nFilled = m_input.Read(m_room);
                if (m_nFilled == 0)
                {
                    return bAny;
                }
            }
            bAny = true;
            std::string_view const rest(reinterpret_cast<char const *>(m_room.data()) + m_nAt, m_nFilled - m_nAt);
            std::size_t const length = std::min(rest.find('\n'), rest.size());
            line.append(rest.substr(0, std::min(length, LONGEST - line.size())));
            m_nAt += length;
            if (length < rest.size())
            {
                ++m_nAt;
                return true;
            }
        }
    }

private:
    InputFile m_input;
    std::vector<BYTE> m_room = std::vector<BYTE>(65536);
    std::size_t m_nAt = 0;
    std::size_t m_nFilled = 0;
};

/// What came of the files of a list.
struct ListTally
{
    ULONGLONG nGood = 0;
    ULONGLONG nWrong = 0;
    ULONGLONG nUnread = 0;
    ULONGLONG nMalformed = 0;
};

void WarnOf(ULONGLONG count, char const * one, char const * many)
{
    if (count > 0)
    {
        WriteError("warning: " + std::to_string(count) + " " + (count == 1 ? one : many) + "\n");
    }
}

/// False if nobody reads on.
bool CheckListLine(HashOptions const & options, std::string const & line, ListTally & tally, StandardOutput & out)
{
    std::optional<ListEntry> const entry =
        line.size() < ListLines::LONGEST ? ReadListEntry(line, options.strAlgorithm) : std::nullopt;
    if (!entry)
    {
        ++tally.nMalformed;
        return true;
    }
    std::optional<std::string> const digits = HashFile(options.strAlgorithm, entry->strName);
    bool const bGood = digits == entry->strDigits;
    ++(bGood ? tally.nGood : digits ? tally.nWrong : tally.nUnread);
    out << (NeedsEscapes(entry->strName) ? "\\" : "") << ShowName(EscapeName(entry->strName))
        << (bGood    ? ": OK\n"
            : digits ? ": FAILED\n"
                     : ": FAILED open or read\n");
    return IsReaderThere(out);
}

int CheckLists(HashOptions const & options)
{
    bool bGood = true;
    StandardOutput out;
    for (std::string const & list : options.files)
    {
        ListTally tally;
        bool const bRead = WithHashFile(list,
                                        [&]
                                        {
                                            ListLines lines(list);
                                            std::string line;
                                            while (lines.Next(line))
                                            {
                                                if (line.ends_with('\r'))
                                                {
                                                    line.pop_back();
                                                }
                                                if (!line.empty() && !line.starts_with('#') &&
                                                    !CheckListLine(options, line, tally, out))
                                                {
                                                    return;
                                                }
                                            }
                                        });
        ULONGLONG const entries = tally.nGood + tally.nWrong + tally.nUnread;
        if (bRead && entries == 0)
        {
            ReportError(ERROR_INVALID_DATA, ToFileName(list) + _T(": no line of a list of ") +
                                                kvx::FromUtf8(options.strAlgorithm) + _T(" digests"));
        }
        WarnOf(tally.nMalformed, "line is malformed", "lines are malformed");
        WarnOf(tally.nUnread, "listed file could not be read", "listed files could not be read");
        WarnOf(tally.nWrong, "digest did NOT match", "digests did NOT match");
        bGood = bGood && bRead && entries > 0 && tally.nGood == entries;
    }
    int const status = ReportWritten(out.Finish());
    return bGood ? status : 1;
}
} // namespace

void AddHashCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<HashOptions>();
    CLI::App * const hash = app.add_subcommand("hash", "Print and check digests of files");
    AddChoice<std::string>(*hash, "ALGORITHM", options->strAlgorithm, "How",
                           {{"md5", "md5"}, {"sha1", "sha1"}, {"sha256", "sha256"}, {"crc32", "crc32"}})
        ->required()
        ->default_str("");
    hash->add_option("FILE", options->files, "The files; - is stdin, which is read if there is none");
    hash->add_flag("-c,--check", options->bCheck, "Each FILE is a list of digests and files, which are checked");
    hash->footer(
        "Examples:\n"
        "  kvx hash sha256 *.iso > SHA256SUMS\n"
        "  kvx hash sha256 -c SHA256SUMS\n"
        "  tar c . | kvx hash md5\n"
        "\n"
        "Lists are those of md5sum, sha1sum and sha256sum, in both of their forms. The exit status of a check is 1 if "
        "any file differs or can't be read, or no line of a list is well-formed.");
    hash->callback(
        [&run, options]
        {
            if (options->files.empty())
            {
                options->files.push_back("-");
            }
            run = [options] { return options->bCheck ? CheckLists(*options) : PrintDigests(*options); };
        });
}
