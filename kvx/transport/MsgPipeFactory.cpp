#include "kvx/transport/MsgPipeFactory.h"

#include "kvx/foundation/Timeout.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/Msg9XPipeConnection.h"
#include "kvx/transport/MsgNTPipeConnection.h"

namespace
{
constexpr DWORD STOP_TIMEOUT = 10000;     // milliseconds
constexpr DWORD INSTANCE_TIMEOUT = 60000; // milliseconds

CMsgConnection * Create9XPipe(CMsgPipeListener * listener, CString const & name)
{
    return new CMsg9XPipeConnection(listener, name);
}

CMsgConnection * CreateNTPipe(CMsgPipeListener * listener, CString const & name)
{
    return new CMsgNTPipeConnection(listener, name, 1);
}

CMsgConnection * CreateNarrowNTPipe(CMsgPipeListener * listener, CString const & name)
{
    return new CMsgNTPipeConnection(listener, name, 0);
}
} // namespace

CMsgPipeListener::CMsgPipeListener(CString const & name, MsgPipeCreator creator)
    : CMsgListener(0, 0, STOP_TIMEOUT), m_strName(name), m_instanceEvent(FALSE, TRUE), m_pCreator(creator)
{
}

int CMsgPipeListener::StartListener()
{
    if (!GetListeningConnection())
    {
        m_instanceEvent.ResetEvent();
        m_findableEvent.ResetEvent();
    }
    int const bStarted = CMsgListener::StartListener();
    if (bStarted)
    {
        m_instanceEvent.Lock(INSTANCE_TIMEOUT);
    }
    return bStarted;
}

/// One that ends before there is an instance says so to whoever waits for that.
void CMsgPipeListener::Run()
{
    struct Ended
    {
        CMsgPipeListener & listener;
        ~Ended()
        {
            if (!listener.m_findableEvent.Lock(0))
            {
                DWORD const error = GetLastError();
                listener.SignalInstance(error != 0 ? error : DWORD{ERROR_OPERATION_ABORTED});
                SetLastError(error);
            }
        }
    } const ended{*this};
    CMsgListener::Run();
}

void CMsgPipeListener::SignalInstance(DWORD error)
{
    if (error != 0)
    {
        ReportListenError(error);
    }
    ReportPublished(error);
    m_instanceEvent.SetEvent();
}

void CMsgPipeListener::ReportPublished(DWORD error)
{
    m_nPublishError = error;
    m_findableEvent.SetEvent();
}

int CMsgPipeListener::WaitUntilListening(DWORD timeout)
{
    // A pipe's Listen says nothing: what clients find comes behind it, or has failed.
    kvx::Timeout const patience(timeout);
    if (!CMsgListener::WaitUntilListening(timeout))
    {
        return 0;
    }
    if (!m_findableEvent.Lock(patience.GetRest()))
    {
        SetLastError(ERROR_TIMEOUT);
        return 0;
    }
    SetLastError(m_nPublishError);
    return m_nPublishError == 0;
}

CMsgProvider * CMsgPipeFactory::CreateProvider(LPCTSTR params)
{
    return new CMsgPipeProvider(params, m_pCreator);
}

CMsgListener * CMsgPipeFactory::CreateListener(LPCTSTR params)
{
    return new CMsgPipeListener(params, m_pCreator);
}

void CMsgPipeFactory::RegisterTypes(CMsgDispatcher & dispatcher)
{
    dispatcher.RegisterFactory(_T("9x_pipe"), new CMsgPipeFactory(&Create9XPipe));
    dispatcher.RegisterFactory(_T("nt_pipe"), new CMsgPipeFactory(&CreateNTPipe));
    dispatcher.RegisterFactory(_T("local_pipe"), new CMsgPipeFactory(&CreateNTPipe));
    dispatcher.RegisterFactory(_T("local_apipe"), new CMsgPipeFactory(&CreateNarrowNTPipe));
}
