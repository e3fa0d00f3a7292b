#include "Commands.h"
#include "Endpoint.h"
#include "LineEditor.h"
#include "Output.h"
#include "PendingCall.h"
#include "SqlSplitter.h"

#include <CLI/App.hpp>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>

namespace
{
struct SqlOptions
{
    std::string strConnection;
    std::string strProvider;
    std::optional<std::string> sql;
    std::vector<std::string> params;
    Format format = Format::Table;
    bool bScript = false;
    std::string strNull;
    DWORD nTimeout = 0; // milliseconds, 0 for none
};

volatile std::sig_atomic_t g_bInterrupted = 0;

void OnInterrupt(int signal)
{
    g_bInterrupted = 1;
    std::signal(signal, &OnInterrupt);
}

/// Statements by one connection, one after the other.
class Session
{
public:
    Session(SqlOptions const & options, Endpoint & endpoint)
        : m_options(options), m_endpoint(endpoint), m_pConnection(endpoint.NewConnection())
    {
    }
    Session(Session const &) = delete;

    /// Shows what comes back; the exit status. `bInterruptible`: Ctrl-C gives the call up.
    int Run(std::string_view sql, bool bInterruptible);

private:
    SqlOptions const & m_options;
    Endpoint & m_endpoint;
    CMsgConnection * m_pConnection;

    void Fill(CMsgRequest & request, std::string_view sql) const;
};

void Session::Fill(CMsgRequest & request, std::string_view sql) const
{
    request.SetCommand(kvx::FromUtf8(m_options.strProvider) + _T(".exec_sql"));
    for (std::string const & word : m_options.params)
    {
        FillParam(request, word);
    }
    request[_T("sql")] = kvx::FromUtf8(sql);
    if (m_options.bScript)
    {
        request[_T("script")] = 1;
    }
    if (!m_options.strNull.empty())
    {
        request[_T("null")] = kvx::FromUtf8(m_options.strNull);
    }
}

int Session::Run(std::string_view sql, bool bInterruptible)
{
    g_bInterrupted = 0;
    auto const call = PendingCall::Start(m_endpoint, m_pConnection, [&](CMsgRequest & request) { Fill(request, sql); });
    if (!call)
    {
        return 1;
    }
    auto const isUnwanted = bInterruptible ? [] { return g_bInterrupted != 0; } : std::function<bool()>();
    auto const end = call->Wait(m_options.nTimeout > 0 ? m_options.nTimeout : INFINITE, isUnwanted);
    if (end == PendingCall::End::Answered)
    {
        return PrintResponse(call->GetResponse(), m_options.format);
    }
    CMsgResponse none;
    if (g_bInterrupted)
    {
        none.SetError(ERROR_CANCELLED, _T("Given up: what the statement does may go on"));
    }
    else
    {
        none.SetError(ERROR_TIMEOUT, _T("No answer within %u ms: what the statement does may go on"),
                      m_options.nTimeout);
    }
    int const status = PrintResponse(none, m_options.format);
    if (end == PendingCall::End::Stuck)
    {
        std::_Exit(status);
    }
    return status;
}

/// Ends at the first statement that fails.
int RunInput(Session & session)
{
    SqlSplitter text;
    std::string line;
    std::string statement;
    while (std::getline(std::cin, line))
    {
        text.AddLine(line);
        while (text.Take(statement))
        {
            if (int const status = session.Run(statement, false); status != 0)
            {
                return status;
            }
        }
    }
    return text.HasRest() ? session.Run(text.TakeRest(), false) : 0;
}

/// A script is one request.
int RunScriptInput(Session & session)
{
    std::string const text{std::istreambuf_iterator<char>(std::cin), {}};
    return session.Run(text, false);
}

int Converse(Session & session)
{
    LineEditor editor(LineEditor::GetHistoryPath("sql_history"));
    if (!editor.IsUsable())
    {
        return RunInput(session);
    }
    std::signal(SIGINT, &OnInterrupt);
    SqlSplitter text;
    for (std::string line;;)
    {
        auto const key = editor.Read(text.HasRest() ? "...> " : "sql> ", line);
        if (key == LineEditor::Key::End)
        {
            return 0;
        }
        if (key == LineEditor::Key::Interrupt)
        {
            text.TakeRest();
            continue;
        }
        if (!text.HasRest() && (line == "quit" || line == "exit"))
        {
            return 0;
        }
        if (line.find_first_not_of(" \t") != line.npos)
        {
            editor.Remember(line);
        }
        text.AddLine(line);
        for (std::string statement; text.Take(statement);)
        {
            if (session.Run(statement, true) != 0)
            {
                text.TakeRest(); // what stands behind was meant to follow it
            }
            std::fflush(stdout);
        }
    }
}

int RunSql(SqlOptions const & options)
{
    Endpoint endpoint;
    if (!endpoint.Open(options.strConnection))
    {
        return 1;
    }
    Session session(options, endpoint);
    if (options.sql)
    {
        return session.Run(*options.sql, false);
    }
    DWORD mode = 0;
    if (!options.bScript && GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode))
    {
        return Converse(session);
    }
    return options.bScript ? RunScriptInput(session) : RunInput(session);
}
} // namespace

void AddSqlCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<SqlOptions>();
    CLI::App * const command = app.add_subcommand("sql", "Have a provider run SQL");
    command->add_option("CONNECTION", options->strConnection, "tcp:HOST:PORT, nt_pipe:NAME, ...")
        ->required()
        ->check(&CheckConnectionWord);
    command->add_option("PROVIDER", options->strProvider, "Where it is: statements go to PROVIDER.exec_sql")
        ->required()
        ->check([](std::string const & word)
                { return word.empty() ? std::string("a provider is a dotted path") : std::string(); });
    command->add_option("STATEMENT", options->sql, "What it runs; without one stdin is read");
    command->add_option("NAME=VALUE", options->params, "Values of the statement's placeholders, see below")
        ->check(&CheckParamWord);
    command->add_flag("--script", options->bScript,
                      "Run several statements at once, as one transaction; those of stdin up to its end");
    command->add_option("--null", options->strNull, "What to show for NULL")->type_name("TEXT");
    AddFormatOption(*command, options->format);
    command->add_option("--timeout", options->nTimeout, "Give up with error 1460 after that many milliseconds")
        ->check(CLI::Range(1, 2'000'000'000))
        ->type_name("MS");
    command->footer(
        "Without a statement those of stdin are run, one after the other, up to the first that fails. Each ends at a "
        "';'. " +
        LineEditor::GetHelp() +
        "\n"
        "\n"
        "A value beside the statement takes the place of the placeholder of its name, as it is: :name=VALUE (or @name, "
        "$name) for :name, p1=VALUE for the first ?. nulls=NAME,NAME makes such values NULL, blobs=NAME,NAME bytes "
        "that are written X'00FF'. Columns turn texts into what they hold.\n"
        "\n"
        "A service that was started with --sql answers with a row set: what was selected, or the number of changed "
        "rows. Blobs are shown as X'00FF', of columns with the same name the second is NAME_2. It refuses ATTACH, "
        "VACUUM, most of PRAGMA, temporary tables, transactions but those of --script, and whatever else could reach "
        "other files or the next request.\n"
        "\n"
        "Examples:\n"
        "  kvx serve nt_pipe:data --sql people=people.sqlite &\n"
        "  kvx sql nt_pipe:data people 'create table people(name text, born integer)'\n"
        "  kvx sql nt_pipe:data people 'insert into people values(:name, :born)' \":name=O'Hara\" :born=1999\n"
        "  kvx sql nt_pipe:data people 'select * from people' --format json\n"
        "  kvx sql nt_pipe:data people --script < changes.sql\n"
        "  kvx sql nt_pipe:data people\n"
        "\n" +
        std::string(CONNECTION_HELP));
    command->callback([&run, options] { run = [options] { return RunSql(*options); }; });
}
