#include "Services.h"

#include "Harness.h"
#include "TableTexts.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <atomic>

namespace bench
{
namespace
{
constexpr DWORD PATIENCE = 10000; // milliseconds

constexpr int KEPT_ROWS = 10000;
constexpr int KEPT_COLUMNS = 4;

/// A table of `rows` rows out of the texts that the service keeps.
CMsgRowSet * MakeTable(int rows, int columns)
{
    static std::vector<CString> const texts = KeepTexts<CString>(KEPT_ROWS, KEPT_COLUMNS);
    if (rows > KEPT_ROWS || columns > KEPT_COLUMNS)
    {
        Fail("no such table");
    }
    auto * const table = new CMsgRowSet(TABLE_NAME.data());
    for (int column = 0; column < columns; ++column)
    {
        table->AddColumn(ColumnName(column).data());
    }
    for (int row = 0; row < rows; ++row)
    {
        POSITION pos = table->AppendRow();
        for (int column = 0; column < columns; ++column)
        {
            table->GetData(pos, column) = texts[static_cast<std::size_t>(row * KEPT_COLUMNS + column)];
        }
    }
    return table;
}

void GetTable(CMsgRequest & request, void *)
{
    int const rows = request[_T("rows")];
    int const columns = request[_T("columns")];
    request.GetResponse().AssignRowSet(MakeTable(rows, columns));
}

void GetKeptTable(CMsgRequest & request, void *)
{
    static kvx::RefPtr<CMsgRowSet> const kept(MakeTable(request[_T("rows")], request[_T("columns")]));
    request.GetResponse().AssignRowSet(kept.Get());
}

std::atomic<int> g_nCount{0};

void AddCount(CMsgRequest &, void *)
{
    ++g_nCount;
    g_nCount.notify_one();
}

void WaitForCount(CMsgRequest & request, void *)
{
    int const total = request[_T("total")];
    for (int count = g_nCount; count < total; count = g_nCount)
    {
        g_nCount.wait(count);
    }
    g_nCount -= total;
}

void Ping(CMsgRequest &, void *) {}

CMsgTCPListener * g_pListener = nullptr;
} // namespace

int ByteStream::WriteData(void const * buffer, DWORD count)
{
    auto const * const from = static_cast<unsigned char const *>(buffer);
    m_bytes.insert(m_bytes.end(), from, from + count);
    return 1;
}

double OneWayCalls::Time() const
{
    CMsgRequest add;
    add.SetCommand(_T("host.count.add"));
    CMsgRequest wait;
    wait.SetCommand(_T("host.count.wait"));
    wait.SetParam(_T("total"), m_nCount);
    auto const start = Clock::now();
    for (int i = 0; i < m_nCount; ++i)
    {
        add.Send();
    }
    if (wait.Execute().Failed())
    {
        Fail("the service doesn't count");
    }
    return Since(start) / m_nCount;
}

std::vector<unsigned char> OneWayCalls::GetBytes(int unicode, bool bCompact) const
{
    CMsgRequest add(CMsgRequest::FLAG_DISCARD_RESULTS);
    add.SetCommand(_T("host.count.add"));
    ByteStream stream(unicode, bCompact);
    add.Write(stream);
    return stream.m_bytes;
}

int CountCharacters(CMsgResponse & response)
{
    if (response.Failed())
    {
        Fail("the service gives no table: " + kvx::ToUtf8(response.GetErrorText()));
    }
    POSITION at = response.GetRowSets().GetFirstPosition();
    CMsgRowSet & table = *response.GetRowSets().GetAt(at);
    int const columns = table.GetColumnCount();
    int count = 0;
    for (POSITION pos = table.GetFirstRowPosition(); pos; table.GetNextRowPosition(pos))
    {
        for (int column = 0; column < columns; ++column)
        {
            count += table.GetData(pos, column).GetLength();
        }
    }
    return count;
}

void FillTableRequest(CMsgRequest & request, int rows, int columns)
{
    request.SetParam(_T("rows"), rows);
    request.SetParam(_T("columns"), columns);
    request.SetParam(_T("filter"), _T("all"));
}

int StartServices()
{
    CMsgTCPFactory::RegisterTypes();
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    dispatcher.RegisterProvider(_T("host.table.get"), &GetTable, nullptr);
    dispatcher.RegisterProvider(_T("host.table.kept"), &GetKeptTable, nullptr);
    dispatcher.RegisterProvider(_T("host.count.add"), &AddCount, nullptr);
    dispatcher.RegisterProvider(_T("host.count.wait"), &WaitForCount, nullptr);
    dispatcher.RegisterProvider(_T("host.ping"), &Ping, nullptr);
    g_pListener = static_cast<CMsgTCPListener *>(dispatcher.RegisterListener(_T("host"), _T("tcp:127.0.0.1:0"), 1));
    if (!g_pListener || !g_pListener->WaitUntilListening(PATIENCE))
    {
        Fail("the service doesn't listen");
    }
    return static_cast<int>(g_pListener->GetListeningPort());
}

void StopServices()
{
    g_pListener->StopListener();
    EndLibrary();
}

void ConnectServices(int port)
{
    CMsgTCPFactory::RegisterTypes();
    CString config;
    config.Format(_T("tcp:127.0.0.1:%d"), port);
    if (!CMsgDispatcher::GetInstance()->RegisterProvider(_T("host"), config, 1))
    {
        Fail("no connection provider");
    }
}

void LeaveServices()
{
    CMsgDispatcher::GetInstance()->DeleteTarget(_T("host"));
}

void EndLibrary()
{
    CMsgDispatcher::GetInstance()->ShutDownNotificationQueue(0);
    CKVXBaseApp::InitShutdown();
    CThreadPool::TerminateAllThreads(PATIENCE);
    CLogManager::Terminate();
}
} // namespace bench
