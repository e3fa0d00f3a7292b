#include "SqlProvider.h"

#include "kvx/messaging/MsgMap.h"
#include "kvx/platform/SocketPeer.h"
#include "kvx/transport/MsgTCPConnection.h"

#include <sqlite3.h>

namespace
{
/// Whether a request came by a connection that its client has left since.
bool HasGone(CMsgConnection * connection)
{
    if (!connection || !connection->IsConnected())
    {
        return connection != nullptr;
    }
    if (!dynamic_cast<CMsgTCPConnection *>(connection))
    {
        return false; // the other kinds have asked the system
    }
    return kvx::HasPeerEnded(reinterpret_cast<SOCKET>(connection->GetReadHandle()));
}
} // namespace

void CSqlProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    AddProvider(_T("exec_sql"), new _MsgMapEntry<CSqlProvider>(this, &CSqlProvider::OnExecute));
}

std::optional<SqlFailure> CSqlProvider::Open()
{
    auto database = std::make_unique<CSqlDatabase>(m_limits, m_bStop);
    // Set before anything is opened, it holds for all of it.
    sqlite3_hard_heap_limit64(static_cast<sqlite3_int64>(m_limits.nMaxMemory));
    auto failure = database->Open(m_strPath, true);
    if (!failure)
    {
        m_idle.push_back(std::move(database));
    }
    return failure;
}

int CSqlProvider::StopProvider()
{
    m_bStop = true;
    return 1;
}

bool CSqlProvider::AwaitEnd(std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::size_t ended = 0;
    while (ended < SqlLimits::CONNECTIONS && m_free.try_acquire_until(deadline))
    {
        ++ended;
    }
    m_free.release(static_cast<std::ptrdiff_t>(ended));
    return ended == SqlLimits::CONNECTIONS;
}

std::unique_ptr<CSqlDatabase> CSqlProvider::TakeIdle()
{
    CSingleLock guard(&m_lock, TRUE);
    if (m_idle.empty())
    {
        return nullptr;
    }
    auto database = std::move(m_idle.back());
    m_idle.pop_back();
    return database;
}

void CSqlProvider::OnExecute(CMsgRequest & request)
{
    constexpr std::chrono::milliseconds LOOK(50); // at the end of the service
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_limits.nTimeout);
    while (m_bStop || !m_free.try_acquire_for(LOOK))
    {
        bool const bLate = m_limits.nTimeout > 0 && std::chrono::steady_clock::now() >= deadline;
        if (m_bStop || HasGone(request.GetConnection()))
        {
            request.SetResponseError(ERROR_OPERATION_ABORTED, _T("%s"),
                                     m_bStop ? _T("The service ends") : _T("The client has gone"));
            return;
        }
        if (bLate)
        {
            request.SetResponseError(ERROR_BUSY, _T("%s"), _T("Too many statements are at work"));
            return;
        }
    }
    struct Release
    {
        std::counting_semaphore<> & semaphore;
        ~Release() { semaphore.release(); }
    } const release{m_free};

    kvx::RefPtr<CMsgMultipleRowSets> const results(new CMsgMultipleRowSets);
    if (auto const failure = Execute(request, *results))
    {
        request.SetResponseError(failure->nCode, _T("%s"), failure->strText);
        return;
    }
    request.GetResponse().AssignRowSets(results.Get());
}

std::optional<SqlFailure> CSqlProvider::Execute(CMsgRequest & request, CMsgMultipleRowSets & results)
{
    CValueAccessor const & params = request;
    CString sql;
    if (!params.GetValue(_T("sql"), sql))
    {
        return SqlFailure{ERROR_INVALID_PARAMETER, _T("The parameter 'sql' is missing")};
    }
    CString const script = params.GetValue(_T("script"));
    if (!script.IsEmpty() && script != _T("0") && script != _T("1"))
    {
        return SqlFailure{ERROR_INVALID_PARAMETER, _T("The parameter 'script' must be 0 or 1")};
    }
    auto database = TakeIdle();
    if (!database)
    {
        database = std::make_unique<CSqlDatabase>(m_limits, m_bStop);
        if (auto failure = database->Open(m_strPath, false))
        {
            return failure;
        }
    }
    auto failure =
        database->Run(sql, script == _T("1"), params, results, [&request] { return HasGone(request.GetConnection()); });
    // An exception ends the connection, in whatever state it is.
    if (database->IsClean())
    {
        CSingleLock guard(&m_lock, TRUE);
        m_idle.push_back(std::move(database));
    }
    return failure;
}
