#include "SqlDatabase.h"

#include "kvx/foundation/RefCounter.h"
#include "kvx/text/StringTokenizer.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>
#include <vector>

namespace
{
constexpr int PROGRESS_STEPS = 1000; // of the engine's machine between two looks at the clock

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

/// Half of a surrogate pair has no form in UTF-8, and would be stored as something else.
bool IsWellFormed(CString::View text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        bool const bHigh = (text[i] & 0xFC00) == 0xD800;
        if (bHigh && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00)
        {
            ++i;
        }
        else if (bHigh || (text[i] & 0xFC00) == 0xDC00)
        {
            return false;
        }
    }
    return true;
}

CString ToHexLiteral(BYTE const * bytes, int count)
{
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    CString text;
    WCHAR * const buffer = text.GetBufferSetLength(2 * count + 3);
    WCHAR * at = buffer;
    *at++ = 'X';
    *at++ = '\'';
    for (int i = 0; i < count; ++i)
    {
        *at++ = static_cast<WCHAR>(DIGITS[bytes[i] >> 4]);
        *at++ = static_cast<WCHAR>(DIGITS[bytes[i] & 15]);
    }
    *at = '\'';
    return text;
}

/// The bytes of X'00FF' or 00FF; nothing for another text.
std::optional<std::vector<BYTE>> FromHexLiteral(CString::View text)
{
    if (text.size() >= 3 && (text.front() == 'X' || text.front() == 'x') && text[1] == '\'' && text.back() == '\'')
    {
        text = text.substr(2, text.size() - 3);
    }
    auto const digit = [](WCHAR c)
    {
        return c >= '0' && c <= '9'   ? c - '0'
               : c >= 'A' && c <= 'F' ? c - 'A' + 10
               : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                      : -1;
    };
    std::vector<BYTE> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        int const high = digit(text[2 * i]);
        int const low = digit(text[2 * i + 1]);
        if (high < 0 || low < 0)
        {
            return std::nullopt;
        }
        bytes[i] = static_cast<BYTE>(16 * high + low);
    }
    return text.size() % 2 == 0 ? std::optional(std::move(bytes)) : std::nullopt;
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

/// The columns' names, each of them once: two of the same would be one column.
void AddColumns(sqlite3_stmt * statement, CMsgRowSet & rows)
{
    int const count = sqlite3_column_count(statement);
    for (int i = 0; i < count; ++i)
    {
        char const * const given = sqlite3_column_name(statement, i);
        CString const name = kvx::FromUtf8(given ? given : "");
        CString unique = name;
        for (int n = 2; rows.HasData(unique); ++n)
        {
            unique.Format(_T("%s_%d"), name, n);
        }
        rows.AddColumn(unique);
    }
}
} // namespace

CString CTextCache::Get(std::string_view bytes)
{
    constexpr std::size_t LENGTH_MAX = 64;
    constexpr std::size_t ENTRIES = 1024;
    constexpr std::size_t TRIAL = 1000; // look-ups, of which half must have found something
    if (bytes.size() > LENGTH_MAX || bytes.empty() || (m_nLookups >= TRIAL && m_nHits < m_nLookups / 2))
    {
        return kvx::FromUtf8(bytes);
    }
    m_entries.resize(ENTRIES);
    Entry & entry = m_entries[std::hash<std::string_view>()(bytes) % ENTRIES];
    ++m_nLookups;
    if (entry.strBytes == bytes)
    {
        ++m_nHits;
        return entry.strText;
    }
    entry.strText = kvx::FromUtf8(bytes);
    entry.strBytes = bytes;
    return entry.strText;
}

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

SqlFailure CSqlDatabase::LastFailure() const
{
    if (m_bStop || m_bUnwanted)
    {
        return Failure(ERROR_OPERATION_ABORTED, m_bStop ? _T("The service ends") : _T("The client has gone"));
    }
    int const result = sqlite3_extended_errcode(m_pDatabase);
    CString text = kvx::FromUtf8(sqlite3_errmsg(m_pDatabase));
    if ((result & 0xFF) == SQLITE_INTERRUPT)
    {
        text.Format(_T("The statement takes longer than %u ms, which is what the service allows"), m_limits.nTimeout);
        return Failure(ERROR_TIMEOUT, text);
    }
    // The functions that nobody may call are refused under another code.
    return Failure(m_bDenied ? ERROR_ACCESS_DENIED : ToWin32(result), text);
}

bool CSqlDatabase::IsIdle() const
{
    return sqlite3_get_autocommit(m_pDatabase) != 0;
}

std::optional<SqlFailure> CSqlDatabase::RunOwn(char const * sql)
{
    m_bOwnStatement = true;
    int const result = sqlite3_exec(m_pDatabase, sql, nullptr, nullptr, nullptr);
    m_bOwnStatement = false;
    return result == SQLITE_OK ? std::nullopt : std::optional(LastFailure());
}

std::optional<SqlFailure> CSqlDatabase::Open(std::string const & path)
{
    int const flags =
        (m_limits.bReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) | SQLITE_OPEN_NOMUTEX;
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
    sqlite3_limit(m_pDatabase, SQLITE_LIMIT_SQL_LENGTH, SqlLimits::STATEMENT_MAX);
    sqlite3_limit(m_pDatabase, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 1000); // its time is that of the text times this
    sqlite3_limit(m_pDatabase, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(m_pDatabase, SQLITE_LIMIT_WORKER_THREADS, 0);
    // The schema is read first, so that a file that is no database is told here.
    auto failure = RunOwn(m_limits.bReadOnly ? "PRAGMA query_only=1; PRAGMA schema_version"
                                             : "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL");
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

int CSqlDatabase::OnAuthorize(void * self, int action, char const * first, char const * second, char const *,
                              char const *)
{
    auto & database = *static_cast<CSqlDatabase *>(self);
    if (database.m_bOwnStatement)
    {
        return SQLITE_OK;
    }
    bool bAllowed = true;
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
        bAllowed = false;
        break;
    case SQLITE_PRAGMA:
        bAllowed = Has(READING_PRAGMAS, first) || (!second && Has(READ_SETTINGS, first));
        break;
    case SQLITE_FUNCTION:
        bAllowed = !Has(std::array<std::string_view, 2>{"load_extension", "fts3_tokenizer"}, second);
        break;
    case SQLITE_CREATE_VTABLE:
        bAllowed = Has(MODULES, second);
        break;
    default:
        break;
    }
    database.m_bDenied = database.m_bDenied || !bAllowed;
    return bAllowed ? SQLITE_OK : SQLITE_DENY;
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

std::optional<SqlFailure> CSqlDatabase::AddRow(sqlite3_stmt * statement, CString const & null, CMsgRowSet & rows)
{
    constexpr ULONGLONG CELL_COST = 4; // bytes of an empty one in a message
    CString text;
    POSITION row = nullptr;
    if (++m_nRows > m_limits.nMaxRows && m_limits.nMaxRows > 0)
    {
        text.Format(
            _T("The result has more than %u rows, which is what the service allows: give the statement a limit"),
            m_limits.nMaxRows);
        return Failure(ERROR_MORE_DATA, text);
    }
    row = rows.AppendRow();
    int const count = sqlite3_column_count(statement);
    for (int i = 0; i < count; ++i)
    {
        CStringValue & cell = rows.GetData(row, i);
        auto const type = sqlite3_column_type(statement, i);
        int bytes = 0;
        if (type == SQLITE_NULL)
        {
            cell = null;
        }
        else if (type == SQLITE_BLOB)
        {
            auto const * const data = static_cast<BYTE const *>(sqlite3_column_blob(statement, i));
            bytes = sqlite3_column_bytes(statement, i);
            cell = ToHexLiteral(data, bytes);
            bytes *= 2;
        }
        else
        {
            auto const * const data = reinterpret_cast<char const *>(sqlite3_column_text(statement, i));
            bytes = sqlite3_column_bytes(statement, i);
            if (!data)
            {
                return Failure(ERROR_NOT_ENOUGH_MEMORY, _T("Out of memory"));
            }
            std::string_view const utf8(data, static_cast<std::size_t>(bytes));
            auto const column = static_cast<std::size_t>(i);
            cell = column < m_texts.size() ? m_texts[column].Get(utf8) : kvx::FromUtf8(utf8);
        }
        m_nBytes += static_cast<ULONGLONG>(bytes) + CELL_COST;
        if (m_nBytes > m_limits.nMaxBytes && m_limits.nMaxBytes > 0)
        {
            text.Format(_T("The result has more than %I64u bytes, which is what the service allows: give the ")
                        _T("statement a limit"),
                        m_limits.nMaxBytes);
            return Failure(ERROR_MORE_DATA, text);
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
    AddColumns(statement, *rows);
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
    if (text.size() > SqlLimits::STATEMENT_MAX)
    {
        return Failure(ERROR_INVALID_PARAMETER, _T("The statement is too long"));
    }
    m_deadline = GetDeadline();
    m_nextLook = Clock::now() + std::chrono::milliseconds(10); // not for what is done at once
    m_isUnwanted = isUnwanted;
    m_bUnwanted = false;
    m_nBytes = 0;
    m_nRows = 0;
    m_bDenied = false;
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
        RunOwn("ROLLBACK");
    }
    m_isUnwanted = nullptr;
    if (failure)
    {
        results.RemoveAll();
    }
    return failure;
}
