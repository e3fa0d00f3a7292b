#pragma once

/// Lines typed at a terminal, with editing and a history: of a source for each host.

#include <memory>
#include <optional>
#include <string>

/// Prompts and echoes don't go to stdout, which has results alone. Ctrl-C gives up the line. Threads: one, and one
/// editor in a process.
class LineEditor
{
public:
    enum class Key
    {
        Line,
        Interrupt, ///< Ctrl-C: nothing has been entered
        End        ///< the end of the input
    };

    /// The history file is made when it is first written, for its user alone; an empty path keeps none. On Windows the
    /// console keeps what it keeps.
    explicit LineEditor(std::string historyPath);
    LineEditor(LineEditor const &) = delete;
    LineEditor & operator=(LineEditor const &) = delete;
    /// Writes the history.
    ~LineEditor();

    /// False if the terminal can't be used for it.
    bool IsUsable() const;
    Key Read(std::string const & prompt, std::string & line);
    void Remember(std::string const & line);

    /// What a user has to know.
    static std::string GetHelp();

    /// kvx/NAME in the folder of the user's data; empty if the user has none.
    static std::string GetHistoryPath(std::string const & name);

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};
