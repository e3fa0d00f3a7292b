#include "SqlDatabase.h"

#include "kvx/foundation/RefCounter.h"
#include "kvx/text/StringTokenizer.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace
{
constexpr int PROGRESS_STEPS = 1000; // of the engine's machine between two looks at the clock

/// Bytes that an empty one takes at most, in the memory or in a message.
constexpr ULONGLONG ROW_SET_COST = 256;
constexpr ULONGLONG CELL_COST = 4;

/// Functions that could reach further, or that take the square of the time for twice the text.
constexpr std::array<std::string_view, 3> REFUSED_FUNCTIONS{"fts3_tokenizer", "json_patch", "load_extension"};

/// What a client may ask of the settings: nothing that changes any, or reaches a file.
constexpr std::array<std::string_view, 14> READING_PRAGMAS{
    "collation_list", "compile_options", "foreign_key_check", "foreign_key_list", "function_list",
    "index_info",     "index_list",      "index_xinfo",       "integrity_check",  "pragma_list",
    "quick_check",    "table_info",      "table_list",        "table_xinfo"};

/// The same, while they are given no value. The modules below ask for some.
constexpr std::array<std::string_view, 7> READ_SETTINGS{"application_id", "data_version",   "encoding",    "page_count",
                                                        "page_size",      "schema_version", "user_version"};

constexpr std::array<std::string_view, 3> MODULES{"fts5", "rtree", "rtree_i32"};

template <class LIST>
bool Has(LIST const & list, char const * word)
{
    return word && std::ranges::any_of(list, [&](std::string_view known)
                                       { return sqlite3_stricmp(std::string(known).c_str(), word) == 0; });
}

SqlFailure Failure(DWORD code, CString const & text)
{
    return {code, text};
}

std::set<std::string> ReadList(CValueAccessor const & params, LPCTSTR name)
{
    std::set<std::string> names;
    CStringTokenizer list(params.GetValue(name), _T(","));
    CString item;
    while (list.GetNextString(item))
    {
        names.insert(kvx::ToUtf8(item.Trim()));
    }
    return names;
}

DWORD ToWin32(int result)
{
    switch (result & 0xFF)
    {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return ERROR_BUSY;
    case SQLITE_AUTH:
    case SQLITE_PERM:
        return ERROR_ACCESS_DENIED;
    case SQLITE_READONLY:
        return ERROR_WRITE_PROTECT;
    case SQLITE_NOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_FULL:
        return ERROR_DISK_FULL;
    case SQLITE_CANTOPEN:
        return ERROR_OPEN_FAILED;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return ERROR_INVALID_DATA;
    case SQLITE_IOERR:
        return ERROR_IO_DEVICE;
    default:
        return ERROR_INVALID_PARAMETER; // the statement or its values
    }
}

/// Whether a statement has a `?` without a number. Its parameter has no name, as little as a number below another one
/// that it doesn't use.
bool HasBareMark(std::string_view sql)
{
    for (std::size_t i = 0; i < sql.size(); ++i)
    {
        char const c = sql[i];
        char const next = i + 1 < sql.size() ? sql[i + 1] : ' ';
        std::string_view end;
        switch (c)
        {
        case '\'':
        case '"':
        case '`':
            end = sql.substr(i, 1);
            break;
        case '[':
            end = "]";
            break;
        case '-':
            end = next == '-' ? "\n" : "";
            break;
        case '/':
            end = next == '*' ? "*/" : "";
            break;
        case '?':
            if (next < '0' || next > '9')
            {
                return true;
            }
            break;
        default:
            break;
        }
        if (!end.empty())
        {
            auto const at = sql.find(end, i + (end.size() == 2 ? 2 : 1));
            if (at == sql.npos)
            {
                return false;
            }
            i = at + end.size() - 1;
        }
    }
    return false;
}
} // namespace

void CSqlDatabase::StatementEnd::operator()(sqlite3_stmt * statement) const
{
    sqlite3_finalize(statement);
}

CSqlDatabase::CSqlDatabase(SqlLimits const & limits, std::atomic<bool> const & bStop) : m_limits(limits), m_bStop(bStop)
{
}

CSqlDatabase::~CSqlDatabase()
{
    sqlite3_close(m_pDatabase);
}

SqlFailure CSqlDatabase::EndFailure() const
{
    if (m_bStop || m_bUnwanted)
    {
        return Failure(ERROR_OPERATION_ABORTED, m_bStop ? _T("The service ends") : _T("The client has gone"));
    }
    CString text;
    text.Format(_T("The statement takes longer than %u ms, which is what the service allows"), m_limits.nTimeout);
    return Failure(ERROR_TIMEOUT, text);
}

SqlFailure CSqlDatabase::LastFailure()
{
    int const result = sqlite3_extended_errcode(m_pDatabase);
    if (m_bStop || m_bUnwanted || m_bLate || (result & 0xFF) == SQLITE_INTERRUPT)
    {
        return EndFailure();
    }
    CString text = kvx::FromUtf8(sqlite3_errmsg(m_pDatabase));
    if (m_nFunctions > SqlLimits::FUNCTIONS_MAX)
    {
        text.Format(_T("The statement calls more than %d functions, which is what the service allows"),
                    SqlLimits::FUNCTIONS_MAX);
    }
    if ((result & 0xFF) == SQLITE_NOMEM)
    {
        m_bOutOfMemory = true;
        text = _T("The statement is too complex, or takes more memory than the service has");
    }
    // The functions that nobody may call are refused under another code.
    return Failure(m_bDenied ? ERROR_ACCESS_DENIED : ToWin32(result), text);
}

bool CSqlDatabase::IsIdle() const
{
    return sqlite3_get_autocommit(m_pDatabase) != 0;
}

bool CSqlDatabase::IsClean()
{
    if (!IsIdle() || m_bOutOfMemory)
    {
        return false;
    }
    bool bTemporary = false;
    auto const onRow = [](void * found, int, char **, char **)
    {
        *static_cast<bool *>(found) = true;
        return 0;
    };
    m_bOwnStatement = true;
    int const result =
        m_bChanges ? sqlite3_exec(m_pDatabase, "SELECT 1 FROM sqlite_temp_master LIMIT 1", onRow, &bTemporary, nullptr)
                   : SQLITE_OK;
    m_bOwnStatement = false;
    return result == SQLITE_OK && !bTemporary;
}

std::optional<SqlFailure> CSqlDatabase::RunOwn(char const * sql)
{
    m_bOwnStatement = true;
    int const result = sqlite3_exec(m_pDatabase, sql, nullptr, nullptr, nullptr);
    m_bOwnStatement = false;
    return result == SQLITE_OK ? std::nullopt : std::optional(LastFailure());
}

std::optional<SqlFailure> CSqlDatabase::Open(std::string const & path, bool bCreate)
{
    int const writing = SQLITE_OPEN_READWRITE | (bCreate ? SQLITE_OPEN_CREATE : 0);
    int const flags = (m_limits.bReadOnly ? SQLITE_OPEN_READONLY : writing) | SQLITE_OPEN_NOMUTEX;
    int const result = sqlite3_open_v2(path.c_str(), &m_pDatabase, flags, nullptr);
    if (result != SQLITE_OK)
    {
        return m_pDatabase ? LastFailure() : Failure(ERROR_NOT_ENOUGH_MEMORY, _T("Out of memory"));
    }
    m_deadline = GetDeadline();
    sqlite3_busy_handler(m_pDatabase, &OnBusy, this);
    for (int const setting : {SQLITE_DBCONFIG_DEFENSIVE, SQLITE_DBCONFIG_ENABLE_FKEY})
    {
        sqlite3_db_config(m_pDatabase, setting, 1, nullptr);
    }
    for (int const setting : {SQLITE_DBCONFIG_TRUSTED_SCHEMA, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION})
    {
        sqlite3_db_config(m_pDatabase, setting, 0, nullptr);
    }
    constexpr auto INT_LIMIT = static_cast<ULONGLONG>(std::numeric_limits<int>::max());
    ULONGLONG const valueBytes = m_limits.nMaxValueBytes == 0 ? INT_LIMIT : m_limits.nMaxValueBytes;
    sqlite3_limit(m_pDatabase, SQLITE_LIMIT_LENGTH, static_cast<int>(std::min(valueBytes, INT_LIMIT)));
    struct Limit
    {
        int category;
        int value;
    };
    // Many of these bound what compiling a statement takes, and running it straight on, when nobody looks at the clock.
    for (auto const [category, value] :
         {Limit{SQLITE_LIMIT_SQL_LENGTH, SqlLimits::STATEMENT_MAX}, Limit{SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 1000},
          Limit{SQLITE_LIMIT_COLUMN, 500}, Limit{SQLITE_LIMIT_EXPR_DEPTH, 200}, Limit{SQLITE_LIMIT_VDBE_OP, 250'000},
          Limit{SQLITE_LIMIT_COMPOUND_SELECT, 100}, Limit{SQLITE_LIMIT_FUNCTION_ARG, 100},
          Limit{SQLITE_LIMIT_VARIABLE_NUMBER, 10'000}, Limit{SQLITE_LIMIT_TRIGGER_DEPTH, 100},
          Limit{SQLITE_LIMIT_ATTACHED, 0}, Limit{SQLITE_LIMIT_WORKER_THREADS, 0}})
    {
        sqlite3_limit(m_pDatabase, category, value);
    }
    AddOwnFunctions();
    // The schema is read first, so that a file that is no database is told here.
    auto failure = RunOwn(m_limits.bReadOnly ? "PRAGMA temp_store=MEMORY; PRAGMA query_only=1; PRAGMA schema_version"
                                             : "PRAGMA temp_store=MEMORY; PRAGMA journal_mode=WAL; "
                                               "PRAGMA synchronous=NORMAL");
    sqlite3_set_authorizer(m_pDatabase, &OnAuthorize, this);
    sqlite3_progress_handler(m_pDatabase, PROGRESS_STEPS, &OnProgress, this);
    return failure;
}

CSqlDatabase::Clock::time_point CSqlDatabase::GetDeadline() const
{
    return m_limits.nTimeout == 0 ? Clock::time_point::max()
                                  : Clock::now() + std::chrono::milliseconds(m_limits.nTimeout);
}

bool CSqlDatabase::IsToEnd()
{
    constexpr std::chrono::milliseconds LOOK(200);
    auto const now = Clock::now();
    if (now >= m_nextLook && m_isUnwanted)
    {
        m_nextLook = now + LOOK;
        m_bUnwanted = m_bUnwanted || m_isUnwanted();
    }
    return m_bStop || m_bUnwanted || now >= m_deadline;
}

int CSqlDatabase::OnProgress(void * self)
{
    return static_cast<CSqlDatabase *>(self)->IsToEnd();
}

int CSqlDatabase::OnBusy(void * self, int attempts)
{
    constexpr DWORD STEP = 5; // milliseconds
    auto & database = *static_cast<CSqlDatabase *>(self);
    auto const now = Clock::now();
    if (attempts == 0)
    {
        database.m_busySince = now;
    }
    if (database.IsToEnd() || now - database.m_busySince >= std::chrono::milliseconds(SqlLimits::BUSY_TIMEOUT))
    {
        return 0;
    }
    Sleep(attempts < 10 ? 1 : STEP);
    return 1;
}

/// What the engine counts over all requests of a connection begins anew for each of them.
void CSqlDatabase::AddOwnFunctions()
{
    AddBoundedFunctions(m_pDatabase, m_work);
    constexpr int FLAGS = SQLITE_UTF8 | SQLITE_INNOCUOUS;
    sqlite3_create_function(
        m_pDatabase, "total_changes", 0, FLAGS, this,
        [](sqlite3_context * context, int, sqlite3_value **)
        {
            auto const & self = *static_cast<CSqlDatabase *>(sqlite3_user_data(context));
            sqlite3_result_int64(context, sqlite3_total_changes64(self.m_pDatabase) - self.m_nChangesBefore);
        },
        nullptr, nullptr);
    sqlite3_create_function(
        m_pDatabase, "changes", 0, FLAGS, this,
        [](sqlite3_context * context, int, sqlite3_value **)
        {
            auto const & self = *static_cast<CSqlDatabase *>(sqlite3_user_data(context));
            bool const bAny = sqlite3_total_changes64(self.m_pDatabase) != self.m_nChangesBefore;
            sqlite3_result_int64(context, bAny ? sqlite3_changes64(self.m_pDatabase) : 0);
        },
        nullptr, nullptr);
}

bool CSqlDatabase::IsAllowed(int action, char const * first, char const * second, char const * schema)
{
    // The engine itself looks there while it renames. Nothing can be there: not all that makes something has an action
    // of its own, but all of that adds a row.
    bool const bTemporary = schema && sqlite3_stricmp(schema, "temp") == 0;
    if (bTemporary && action != SQLITE_READ && action != SQLITE_UPDATE)
    {
        return false;
    }
    switch (action)
    {
    case SQLITE_ATTACH: // VACUUM too, which could write to any file
    case SQLITE_DETACH:
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT:
    case SQLITE_CREATE_TEMP_INDEX:
    case SQLITE_CREATE_TEMP_TABLE:
    case SQLITE_CREATE_TEMP_TRIGGER:
    case SQLITE_CREATE_TEMP_VIEW:
        return false;
    case SQLITE_PRAGMA:
        return Has(READING_PRAGMAS, first) || (!second && Has(READ_SETTINGS, first));
    case SQLITE_FUNCTION:
        return !Has(REFUSED_FUNCTIONS, second) && ++m_nFunctions <= SqlLimits::FUNCTIONS_MAX;
    case SQLITE_CREATE_VTABLE:
        return Has(MODULES, second);
    default:
        return true;
    }
}

int CSqlDatabase::OnAuthorize(void * self, int action, char const * first, char const * second, char const * schema,
                              char const *)
{
    constexpr std::size_t COST = 1024; // so that the clock is looked at now and then
    auto & database = *static_cast<CSqlDatabase *>(self);
    if (database.m_bOwnStatement)
    {
        return SQLITE_OK;
    }
    database.m_bLate = database.m_bLate || database.m_work.Spend(COST);
    bool const bAllowed = database.IsAllowed(action, first, second, schema);
    database.m_bDenied = database.m_bDenied || !bAllowed;
    return bAllowed && !database.m_bLate ? SQLITE_OK : SQLITE_DENY;
}

std::optional<SqlFailure> CSqlDatabase::Bind(sqlite3_stmt * statement, CValueAccessor const & params)
{
    int const count = sqlite3_bind_parameter_count(statement);
    if (count == 0)
    {
        return std::nullopt;
    }
    auto const nulls = ReadList(params, _T("nulls"));
    auto const blobs = ReadList(params, _T("blobs"));
    std::optional<bool> bBare; // if that is to be known
    for (int i = 1; i <= count; ++i)
    {
        char const * const given = sqlite3_bind_parameter_name(statement, i);
        // "?" has no name and "?1" is awkward in a shell: both go by "p1".
        std::string const name = given && *given != '?' ? std::string(given) : "p" + std::to_string(i);
        if (nulls.contains(name))
        {
            continue; // as it is
        }
        CString value;
        if (!params.GetValue(kvx::FromUtf8(name), value))
        {
            if (!given && !bBare)
            {
                bBare = HasBareMark(sqlite3_sql(statement));
            }
            if (!given && !*bBare)
            {
                continue; // no placeholder has this number
            }
            return Failure(ERROR_INVALID_PARAMETER, _T("The request has no parameter '") + kvx::FromUtf8(name) +
                                                        _T("', which the statement takes"));
        }
        int result = SQLITE_OK;
        if (blobs.contains(name))
        {
            auto const bytes = FromHexLiteral(value.AsView());
            if (!bytes)
            {
                return Failure(ERROR_INVALID_PARAMETER,
                               _T("The value of '") + kvx::FromUtf8(name) + _T("' is no X'0123456789ABCDEF'"));
            }
            result = sqlite3_bind_blob64(statement, i, bytes->empty() ? "" : static_cast<void const *>(bytes->data()),
                                         bytes->size(), SQLITE_TRANSIENT);
        }
        else if (!IsWellFormed(value.AsView()))
        {
            return Failure(ERROR_INVALID_PARAMETER, _T("The value of '") + kvx::FromUtf8(name) +
                                                        _T("' has half of a surrogate pair, which can't be stored"));
        }
        else
        {
            std::string const text = kvx::ToUtf8(value);
            result = sqlite3_bind_text64(statement, i, text.c_str(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        }
        if (result != SQLITE_OK)
        {
            return LastFailure();
        }
    }
    return std::nullopt;
}

std::optional<SqlFailure> CSqlDatabase::CountRow()
{
    constexpr ULONGLONG LOOK = 256; // rows between two looks at the clock
    if (++m_nRows > m_limits.nMaxRows && m_limits.nMaxRows > 0)
    {
        CString text;
        text.Format(
            _T("The result has more than %u rows, which is what the service allows: give the statement a limit"),
            m_limits.nMaxRows);
        return Failure(ERROR_MORE_DATA, text);
    }
    return m_nRows % LOOK == 0 && IsToEnd() ? std::optional(EndFailure()) : std::nullopt;
}

std::optional<SqlFailure> CSqlDatabase::CountBytes(ULONGLONG bytes)
{
    m_nBytes += bytes;
    if (m_nBytes <= m_limits.nMaxBytes || m_limits.nMaxBytes == 0)
    {
        return std::nullopt;
    }
    CString text;
    text.Format(_T("The result has more than %I64u bytes, which is what the service allows: give the ")
                _T("statement a limit"),
                m_limits.nMaxBytes);
    return Failure(ERROR_MORE_DATA, text);
}

/// The columns' names, each of them once: two of the same would be one column.
std::optional<SqlFailure> CSqlDatabase::AddColumns(sqlite3_stmt * statement, CMsgRowSet & rows)
{
    std::unordered_map<std::string_view, int> nextNumbers;
    int const count = sqlite3_column_count(statement);
    for (int i = 0; i < count; ++i)
    {
        char const * const given = sqlite3_column_name(statement, i);
        std::string_view const utf8 = given ? given : "";
        if (auto failure = CountBytes(utf8.size() + CELL_COST))
        {
            return failure;
        }
        CString const name = kvx::FromUtf8(utf8);
        CString unique = name;
        for (int & n = nextNumbers.try_emplace(utf8, 2).first->second; rows.HasData(unique); ++n)
        {
            unique.Format(_T("%s_%d"), name, n);
        }
        rows.AddColumn(unique);
    }
    return std::nullopt;
}

std::optional<SqlFailure> CSqlDatabase::AddRow(sqlite3_stmt * statement, CString const & null, CMsgRowSet & rows)
{
    if (auto failure = CountRow())
    {
        return failure;
    }
    POSITION row = rows.AppendRow();
    int const count = sqlite3_column_count(statement);
    for (int i = 0; i < count; ++i)
    {
        CStringValue & cell = rows.GetData(row, i);
        auto const type = sqlite3_column_type(statement, i);
        ULONGLONG shown = 0; // bytes
        if (type == SQLITE_NULL)
        {
            cell = null;
            shown = m_nNullBytes;
        }
        else if (type == SQLITE_BLOB)
        {
            auto const * const data = static_cast<BYTE const *>(sqlite3_column_blob(statement, i));
            int const bytes = sqlite3_column_bytes(statement, i);
            cell = ToHexLiteral(data, bytes);
            shown = ULONGLONG{2} * static_cast<ULONGLONG>(bytes) + 3;
        }
        else
        {
            auto const * const data = reinterpret_cast<char const *>(sqlite3_column_text(statement, i));
            if (!data)
            {
                m_bOutOfMemory = true;
                return Failure(ERROR_NOT_ENOUGH_MEMORY, _T("Out of memory"));
            }
            shown = static_cast<ULONGLONG>(sqlite3_column_bytes(statement, i));
            std::string_view const utf8(data, static_cast<std::size_t>(shown));
            auto const column = static_cast<std::size_t>(i);
            cell = column < m_texts.size() ? m_texts[column].Get(utf8) : kvx::FromUtf8(utf8);
        }
        if (auto failure = CountBytes(shown + CELL_COST))
        {
            return failure;
        }
    }
    return std::nullopt;
}

std::optional<SqlFailure> CSqlDatabase::RunStatement(sqlite3_stmt * statement, CValueAccessor const & params,
                                                     CMsgMultipleRowSets & results)
{
    if (auto failure = Bind(statement, params))
    {
        return failure;
    }
    kvx::RefPtr<CMsgRowSet> const rows(new CMsgRowSet);
    results.Append(rows.Get());
    bool const bRows = sqlite3_column_count(statement) > 0;
    m_bChanges = m_bChanges || !sqlite3_stmt_readonly(statement);
    if (auto failure = IsToEnd() ? EndFailure() : CountBytes(ROW_SET_COST))
    {
        return failure;
    }
    if (auto failure = AddColumns(statement, *rows))
    {
        return failure;
    }
    std::ranges::for_each(m_texts, &CTextCache::Restart);
    CString const null = params.GetValue(_T("null"));
    auto const before = sqlite3_total_changes64(m_pDatabase);
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement)) == SQLITE_ROW)
    {
        if (auto failure = AddRow(statement, null, *rows))
        {
            return failure;
        }
    }
    if (result != SQLITE_DONE)
    {
        return LastFailure();
    }
    if (!bRows)
    {
        if (auto failure = CountRow())
        {
            return failure;
        }
        // The engine keeps the count of the last statement that changed rows; this one may be another.
        bool const bChanged = sqlite3_total_changes64(m_pDatabase) != before;
        rows->SetName(_T("changes"));
        POSITION const row = rows->AppendRow();
        rows->SetData(row, _T("changes"), bChanged ? sqlite3_changes64(m_pDatabase) : 0);
        rows->SetData(row, _T("last_insert_rowid"), sqlite3_last_insert_rowid(m_pDatabase));
    }
    return std::nullopt;
}

std::optional<SqlFailure> CSqlDatabase::RunAll(std::string const & sql, bool bScript, CValueAccessor const & params,
                                               CMsgMultipleRowSets & results)
{
    char const * at = sql.c_str();
    char const * const end = at + sql.size();
    Statement next;
    // The statement behind white space and comments, if there is one.
    auto const prepare = [&]
    {
        do
        {
            sqlite3_stmt * made = nullptr;
            m_nFunctions = 0;
            if (sqlite3_prepare_v2(m_pDatabase, at, static_cast<int>(end - at) + 1, &made, &at) != SQLITE_OK)
            {
                return false;
            }
            next.reset(made);
        } while (!next && at < end);
        return true;
    };
    int count = 0;
    for (; at < end; ++count)
    {
        if (!prepare())
        {
            return LastFailure();
        }
        if (!next)
        {
            break;
        }
        Statement const now = std::move(next);
        if (!bScript)
        {
            // Nothing may be done before it is known that there is no more of it.
            char const * const behind = at;
            bool const bAlone = prepare() && !next;
            at = behind;
            if (!bAlone)
            {
                return Failure(
                    ERROR_INVALID_PARAMETER,
                    _T("The text has more than one statement: only a request with script=1 may, and they are one ")
                    _T("transaction"));
            }
            // What changes rows and gives them back has changed all of them before the first one comes: a result that
            // is too large then has to take that back.
            bool const bUndo = !sqlite3_stmt_readonly(now.get()) && sqlite3_column_count(now.get()) > 0;
            auto failure = bUndo ? RunOwn("BEGIN IMMEDIATE") : std::nullopt;
            return failure ? failure : RunStatement(now.get(), params, results);
        }
        if (auto failure = RunStatement(now.get(), params, results))
        {
            return failure;
        }
    }
    return count > 0 ? std::nullopt
                     : std::optional(Failure(ERROR_INVALID_PARAMETER, _T("There is no statement in the text")));
}

std::optional<SqlFailure> CSqlDatabase::Run(CString const & sql, bool bScript, CValueAccessor const & params,
                                            CMsgMultipleRowSets & results, std::function<bool()> const & isUnwanted)
{
    if (sql.AsView().find(WCHAR{0}) != CString::View::npos || !IsWellFormed(sql.AsView()))
    {
        return Failure(ERROR_INVALID_PARAMETER,
                       _T("The statement has a character 0 or half of a surrogate pair: give such a value beside it"));
    }
    std::string const text = kvx::ToUtf8(sql);
    if (text.size() > SqlLimits::TEXT_MAX)
    {
        return Failure(ERROR_INVALID_PARAMETER, _T("The statement is too long"));
    }
    m_deadline = GetDeadline();
    m_nextLook = Clock::now() + std::chrono::milliseconds(10); // not for what is done at once
    m_isUnwanted = isUnwanted;
    m_bUnwanted = false;
    m_nBytes = 0;
    m_nRows = 0;
    m_nNullBytes = kvx::ToUtf8(params.GetValue(_T("null"))).size();
    m_bDenied = false;
    m_bLate = false;
    m_bChanges = false;
    m_bOutOfMemory = false;
    m_nFunctions = 0;
    int moved = 0;
    if (sqlite3_file_control(m_pDatabase, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved)
    {
        return Failure(ERROR_FILE_NOT_FOUND, _T("The file of the database has been deleted, moved or replaced since ")
                                             _T("the service began: it has to begin again"));
    }
    sqlite3_set_last_insert_rowid(m_pDatabase, 0);
    m_nChangesBefore = sqlite3_total_changes64(m_pDatabase);
    m_bOwnStatement = false;
    auto failure = bScript ? RunOwn(m_limits.bReadOnly ? "BEGIN" : "BEGIN IMMEDIATE") : std::nullopt;
    if (!failure)
    {
        failure = RunAll(text, bScript, params, results);
    }
    if (!failure && !IsIdle())
    {
        failure = RunOwn("COMMIT");
    }
    if (!IsIdle())
    {
        m_deadline = Clock::time_point::max();
        m_isUnwanted = nullptr;
        m_bUnwanted = false;
        m_bLate = false;
        RunOwn("ROLLBACK");
    }
    m_isUnwanted = nullptr;
    m_deadline = Clock::time_point::max();
    if (failure)
    {
        results.RemoveAll();
    }
    return failure;
}
