#pragma once

/// One connection to a SQLite file, fit for statements from strangers.

#include "SqlFunctions.h"
#include "SqlValues.h"

#include "kvx/foundation/ValueAccessor.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

/// What a service allows; a limit of 0 is none.
struct SqlLimits
{
    bool bReadOnly = false;
    DWORD nTimeout = 30'000;                       // milliseconds for all that one request asks for
    DWORD nMaxRows = 100'000;                      // of one request's results
    ULONGLONG nMaxBytes = ULONGLONG{64} << 20;     // of one request's results, in UTF-8
    ULONGLONG nMaxValueBytes = ULONGLONG{1} << 20; // of one value, on disk or made by a function
    ULONGLONG nMaxMemory = ULONGLONG{512} << 20;   // of the engine, for all files and the registry of this process
    static constexpr int TEXT_MAX = 16 << 20;      // bytes in UTF-8
    static constexpr int STATEMENT_MAX = 4 << 20;  // of one in it: bytes of a value have four
    static constexpr int FUNCTIONS_MAX = 2'000;    // calls that one statement writes down
    static constexpr DWORD BUSY_TIMEOUT = 5'000;   // milliseconds to wait for somebody else's lock
    static constexpr std::size_t CONNECTIONS = 8;  // at work at once on one file
};

/// A failure, with a code of Win32 and the text for the client.
struct SqlFailure
{
    DWORD nCode = 0;
    CString strText;
};

/// Statements can reach nothing but the one file: no other files or modules, no settings but a few that only read, no
/// temporary tables that the next request would find, and no transactions that would outlive their request.
///
/// Threads: one at a time; the flag that stops it may be set by any.
class CSqlDatabase
{
public:
    /// `bStop` belongs to the service: set, it ends what runs within a few milliseconds.
    CSqlDatabase(SqlLimits const & limits, std::atomic<bool> const & bStop);
    CSqlDatabase(CSqlDatabase const &) = delete;
    CSqlDatabase & operator=(CSqlDatabase const &) = delete;
    ~CSqlDatabase();

    /// With `bCreate` makes the file if it is missing and may be written.
    std::optional<SqlFailure> Open(std::string const & path, bool bCreate);

    /// Runs one statement, or with `bScript` any number of them as one transaction. The placeholders take their values
    /// from the parameters of the request (SqlProvider.h). Each statement gives a row set. `isUnwanted` is asked from
    /// time to time whether it is to end.
    std::optional<SqlFailure> Run(CString const & sql, bool bScript, CValueAccessor const & params,
                                  CMsgMultipleRowSets & results, std::function<bool()> const & isUnwanted);

    /// False if a request has left something behind that the next one would find: a transaction that couldn't be taken
    /// back, something temporary, or caches that leave others no memory. Closing the connection ends it.
    bool IsClean();

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point GetDeadline() const;
    struct StatementEnd
    {
        void operator()(sqlite3_stmt * statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, StatementEnd>;

    SqlLimits const & m_limits;
    std::atomic<bool> const & m_bStop;
    sqlite3 * m_pDatabase = nullptr;
    bool m_bOwnStatement = true; // no client's: everything is allowed
    bool m_bDenied = false;      // the authorizer has refused something
    bool m_bUnwanted = false;
    bool m_bLate = false;    // found out while the statement was compiled
    bool m_bChanges = false; // the request may have changed something, what is temporary included
    bool m_bOutOfMemory = false;
    int m_nFunctions = 0;           // that the statement calls
    long long m_nChangesBefore = 0; // those that others have made by this connection
    CSqlWork m_work{[this] { return IsToEnd(); }};
    std::function<bool()> m_isUnwanted;
    Clock::time_point m_nextLook{}; // whether it is
    Clock::time_point m_deadline{};
    Clock::time_point m_busySince{};
    ULONGLONG m_nBytes = 0;
    ULONGLONG m_nRows = 0;
    ULONGLONG m_nNullBytes = 0;         // of the text for NULL
    std::array<CTextCache, 16> m_texts; // of the first columns

    bool IsIdle() const;
    static int OnProgress(void * self);
    bool IsToEnd();
    static int OnBusy(void * self, int attempts);
    static int OnAuthorize(void * self, int action, char const * first, char const * second, char const * third,
                           char const * fourth);

    bool IsAllowed(int action, char const * first, char const * second, char const * schema);
    void AddOwnFunctions();

    std::optional<SqlFailure> RunOwn(char const * sql);
    std::optional<SqlFailure> RunAll(std::string const & sql, bool bScript, CValueAccessor const & params,
                                     CMsgMultipleRowSets & results);
    std::optional<SqlFailure> RunStatement(sqlite3_stmt * statement, CValueAccessor const & params,
                                           CMsgMultipleRowSets & results);
    std::optional<SqlFailure> Bind(sqlite3_stmt * statement, CValueAccessor const & params);
    std::optional<SqlFailure> AddColumns(sqlite3_stmt * statement, CMsgRowSet & rows);
    std::optional<SqlFailure> CountRow();
    std::optional<SqlFailure> CountBytes(ULONGLONG bytes);
    std::optional<SqlFailure> AddRow(sqlite3_stmt * statement, CString const & null, CMsgRowSet & rows);
    SqlFailure EndFailure() const;
    SqlFailure LastFailure();
};
