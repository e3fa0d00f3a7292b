#pragma once

/// Options that take one word of several or a size, and what the user reads when the command line can't be followed.

#include "kvx/platform/host.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

/// "a, b or c"
std::string JoinWords(std::vector<std::string> const & words);

/// Adds an option that takes one of these words; the value of the first is the default, which `target` has already.
template <class T>
CLI::Option * AddChoice(CLI::App & command, std::string const & name, T & target, std::string const & help,
                        std::vector<std::pair<std::string, T>> const & choices)
{
    std::vector<std::string> words;
    for (auto const & [word, value] : choices)
    {
        words.push_back(word);
    }
    auto const take = [&target, choices](std::string const & given)
    {
        for (auto const & [word, value] : choices)
        {
            target = word == given ? value : target;
        }
    };
    auto const check = [words](std::string const & given)
    {
        bool const bKnown = std::ranges::find(words, given) != words.end();
        return bKnown ? std::string() : "'" + given + "' is none of its words: use " + JoinWords(words);
    };
    return command.add_option_function<std::string>(name, take, help + ": " + JoinWords(words))
        ->check(check)
        ->type_name("WORD")
        ->default_str(words.front());
}

/// Adds an option that takes a number of bytes, such as 4096, 512K, 64M or 2G; `target` has the default already.
CLI::Option * AddSize(CLI::App & command, std::string const & name, ULONGLONG & target, std::string const & help);

/// To be called while a parser's error is handled: prints the help or the version that was asked for, or says what is
/// wrong. The exit status: 0, 1 if stdout can't be written to, 2 for wrong usage.
int AnswerParser(CLI::App const & app, std::vector<std::string> const & words, CLI::ParseError const & error);
