#pragma once

// A provider that runs SQL on a SQLite database: the least that serves CSqlCommand. `kvx serve --sql` is one for
// clients that aren't trusted; this one does whatever it is told.

#include "kvx/messaging/MsgMap.h"
#include "kvx/msgdata/MsgCursor.h"

#include <sqlite3.h>

#include <memory>

class CSqliteProvider : public CMsgProvider
{
public:
    explicit CSqliteProvider(std::string path) : m_strPath(std::move(path)) {}
    ~CSqliteProvider() override { sqlite3_close(m_pDatabase); }

    void RegisterProviderMap() override
    {
        CMsgProvider::RegisterProviderMap();
        AddProvider(_T("exec_sql"), new _MsgMapEntry<CSqliteProvider>(this, &CSqliteProvider::OnExecute));
    }
    int StartProvider() override { return sqlite3_open(m_strPath.c_str(), &m_pDatabase) == SQLITE_OK; }

private:
    std::string m_strPath;
    CCriticalSection m_lock; // requests of several clients come on threads of their own
    sqlite3 * m_pDatabase = nullptr;

    static void SetCell(CStringValue & cell, sqlite3_stmt * statement, int column)
    {
        auto const * const text = reinterpret_cast<char const *>(sqlite3_column_text(statement, column));
        auto const length = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
        cell = text ? kvx::FromUtf8({text, length}) : CString();
    }

    // Every placeholder takes the parameter of its name, ":name"; one without a name is "p1", "p2" and so on.
    static void Bind(sqlite3_stmt * statement, CValueAccessor const & params)
    {
        for (int i = sqlite3_bind_parameter_count(statement); i > 0; --i)
        {
            char const * const given = sqlite3_bind_parameter_name(statement, i);
            std::string const name = given && *given != '?' ? given : "p" + std::to_string(i);
            std::string const value = kvx::ToUtf8(params.GetValue(kvx::FromUtf8(name)));
            sqlite3_bind_text64(statement, i, value.c_str(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        }
    }

    void OnExecute(CMsgRequest & request)
    {
        CSingleLock guard(&m_lock, TRUE);
        std::string const sql = kvx::ToUtf8(request[_T("sql")]);
        sqlite3_stmt * made = nullptr;
        int result = sqlite3_prepare_v2(m_pDatabase, sql.c_str(), -1, &made, nullptr);
        std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> const statement(made, &sqlite3_finalize);
        if (result == SQLITE_OK && made)
        {
            Bind(made, request);
            CMsgCursor rows(request.GetResponse());
            for (int i = 0; i < sqlite3_column_count(made); ++i)
            {
                rows.AddColumn(kvx::FromUtf8(sqlite3_column_name(made, i)));
            }
            while ((result = sqlite3_step(made)) == SQLITE_ROW)
            {
                rows.AppendRow();
                for (int i = 0; i < rows.GetColumnCount(); ++i)
                {
                    SetCell(rows[i], made, i);
                }
            }
        }
        if (result != SQLITE_OK && result != SQLITE_DONE)
        {
            request.SetResponseError(ERROR_INVALID_PARAMETER, _T("%s"), kvx::FromUtf8(sqlite3_errmsg(m_pDatabase)));
        }
    }
};
