#pragma once

#include "SqlDatabase.h"

#include "kvx/messaging/MsgProvider.h"

#include <chrono>
#include <semaphore>
#include <vector>

/// `PATH.exec_sql`: runs SQL on a SQLite file. Parameters of the request:
///
/// - sql: the statement.
/// - :name, @name, $name, p1: the values of its placeholders :name, @name, $name, and ?1 or the first ?. They are
///   texts, which a column turns into what it holds; each placeholder needs one.
/// - nulls, blobs: names of such values, separated by commas, that are NULL, or bytes written as X'00FF'.
/// - script=1: the text may have several statements, which are one transaction.
/// - null: what is shown for NULL in results, nothing unless it is given.
///
/// The answer has a row set for each statement: what was selected, or a row with `changes`, the number of rows that
/// were changed, and `last_insert_rowid`, 0 if the request hasn't inserted any. Blobs are shown as X'00FF'. Of columns
/// with the same name the second is NAME_2. Failures have the engine's text; on failure nothing has been changed,
/// unless the statement itself wants that
/// (`or fail`).
///
/// Threads: any number; requests beyond the connections that work at once wait, and writers for each other.
class CSqlProvider : public CMsgProvider
{
public:
    CSqlProvider(std::string path, SqlLimits const & limits) : m_strPath(std::move(path)), m_limits(limits) {}

    /// Tells whether the file can be opened at all.
    std::optional<SqlFailure> Open();
    void RegisterProviderMap() override;
    /// Ends what runs, and refuses what comes, from now on. Any thread.
    int StopProvider() override;
    /// Whether everything that runs has ended within that time.
    bool AwaitEnd(std::chrono::milliseconds timeout);

private:
    std::string m_strPath;
    SqlLimits m_limits;
    std::atomic<bool> m_bStop{false};
    std::counting_semaphore<> m_free{static_cast<std::ptrdiff_t>(SqlLimits::CONNECTIONS)};
    CCriticalSection m_lock; // the idle ones
    std::vector<std::unique_ptr<CSqlDatabase>> m_idle;

    void OnExecute(CMsgRequest & request);
    std::optional<SqlFailure> Execute(CMsgRequest & request, CMsgMultipleRowSets & results);
    std::unique_ptr<CSqlDatabase> TakeIdle();
};
