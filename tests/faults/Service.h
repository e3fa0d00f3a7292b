#pragma once

/// What the scenarios talk to: a provider that answers, and the ways to ask it.

#include "Scenario.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/msgdata/MsgCursor.h"
#include "kvx/transport/MsgListener.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <atomic>
#include <string>

namespace faults
{
inline CMsgDispatcher & Dispatcher()
{
    return *CMsgDispatcher::GetInstance();
}

/// A Refusal if the response tells of a failure; a Fault if it does so without a code.
inline void Check(CMsgResponse const & response, char const * what)
{
    if (response.Succeeded())
    {
        return;
    }
    if (response.GetErrorCode() == 0)
    {
        throw Fault{std::string(what) + " has failed without a code"};
    }
    std::string const text = kvx::ToUtf8(response.GetErrorText());
    throw Refusal{std::string(what) + ": " + std::to_string(response.GetErrorCode()) + " " + text};
}

/// Executes, sends or notifies, none of which may throw.
template <class CALL>
void Perform(char const * what, CMsgRequest & request, CALL const & call)
{
    NoThrow(what, [&] { call(request); });
    Check(request.GetResponse(), what);
}

/// Answers "echo" with the rows of the request, each with the parameter "mark" behind its texts, and notes the
/// parameter "n" of a "note".
class CEcho : public CMsgProvider
{
public:
    void RegisterProviderMap() override
    {
        CMsgProvider::RegisterProviderMap();
        AddProvider(_T("echo"), new _MsgMapEntry<CEcho>(this, &CEcho::OnEcho));
        AddProvider(_T("note"), new _MsgMapEntry<CEcho>(this, &CEcho::OnNote));
    }
    int GetNoted() const { return m_nNoted; }

private:
    std::atomic<int> m_nNoted{0};

    void OnEcho(CMsgRequest & request)
    {
        CMsgCursor in(request.GetExParams());
        CMsgCursor out(request.GetResponse());
        while (in.NextRow())
        {
            out.AppendRow();
            out[_T("name")] = in[_T("name")] + request[_T("mark")];
            out[_T("value")] = in[_T("value")];
        }
    }
    void OnNote(CMsgRequest & request)
    {
        int const n = request[_T("n")].ToInteger();
        for (int known = m_nNoted; known < n && !m_nNoted.compare_exchange_weak(known, n);) // of several threads
        {
        }
    }
};

/// A CEcho on a target, and the questions to it.
class Echo
{
public:
    explicit Echo(LPCTSTR target) : m_strTarget(target)
    {
        if (!Dispatcher().RegisterProvider(target, m_pEcho, 1))
        {
            throw Refusal{"no provider"};
        }
    }
    Echo(Echo const &) = delete;
    Echo & operator=(Echo const &) = delete;
    ~Echo() { Dispatcher().DeleteTarget(m_strTarget); }

    /// Both ways with parameters and rows.
    static void Ask(CString const & path)
    {
        CString const command = path + _T(".echo");
        CMsgRequest request;
        request[_T("mark")] = _T("!");
        request[_T("long")] = CString('x', 3000);
        CMsgCursor rows(_T("questions"));
        for (LPCTSTR const name : {_T("one"), _T("two"), _T("three")})
        {
            rows.AppendRow();
            rows[_T("name")] = name;
            rows[_T("value")] = _T("7");
        }
        Perform("a request", request, [&](CMsgRequest & call) { call.Execute(command, rows); });
        CMsgCursor answer(request.GetResponse());
        Expect(answer.GetRowCount() == 3, "the number of rows");
        for (LPCTSTR const name : {_T("one!"), _T("two!"), _T("three!")})
        {
            Expect(answer.NextRow() && answer[_T("name")] == name && answer[_T("value")] == _T("7"), "a row");
        }
    }
    /// One way, which nobody confirms: it must arrive when nothing has failed.
    void Tell(CString const & path)
    {
        int const n = ++m_nTold;
        CString const command = path + _T(".note");
        CMsgRequest request;
        request[_T("n")] = n;
        Perform("a one-way request", request, [&](CMsgRequest & call) { call.Send(command); });
        AwaitNote(n);
    }
    /// On a queue of this process.
    void Notify(CString const & path, LPCTSTR queue)
    {
        int const n = ++m_nTold;
        CString const command = path + _T(".note");
        CMsgRequest request;
        request[_T("n")] = n;
        request.SetNotifyQueueName(queue);
        Perform("a notification", request, [&](CMsgRequest & call) { call.Notify(command); });
        AwaitNote(n);
    }

private:
    static constexpr DWORD SHORT = 100; // milliseconds

    CString m_strTarget;
    CEcho * m_pEcho = new CEcho;
    int m_nTold = 0;

    void AwaitNote(int n)
    {
        bool const bCame = Await([&] { return m_pEcho->GetNoted() >= n; }, IsInjected() ? SHORT : 20000);
        Expect(bCame || IsInjected(), "a one-way request has not come");
    }
};

/// A listener for the whole tree.
class Listening
{
public:
    explicit Listening(CString const & config) : m_strConfig(config)
    {
        m_pListener = Dispatcher().RegisterListener(_T(""), config, 0);
        // Without what a 9x_pipe's own start waits for.
        if (!m_pListener || !m_pListener->CMsgListener::StartListener() || !m_pListener->WaitUntilListening(20000))
        {
            throw Refusal{"no listener"};
        }
    }
    Listening(Listening const &) = delete;
    Listening & operator=(Listening const &) = delete;
    ~Listening()
    {
        m_pListener->StopListener();
        Dispatcher().GetRootTarget()->RemoveProvider(m_pListener, 1);
    }

    /// How a client reaches it.
    CString GetConnection() const
    {
        auto * const tcp = dynamic_cast<CMsgTCPListener *>(m_pListener);
        if (!tcp)
        {
            return m_strConfig;
        }
        CString connection;
        connection.Format(_T("tcp:127.0.0.1:%u"), tcp->GetListeningPort());
        return connection;
    }

private:
    CString m_strConfig;
    CMsgListener * m_pListener;
};

/// A provider of a configuration on a target.
class Registered
{
public:
    Registered(LPCTSTR target, CString const & config) : m_strTarget(target)
    {
        if (!Dispatcher().RegisterProvider(target, config, 1))
        {
            throw Refusal{"no provider"};
        }
    }
    Registered(Registered const &) = delete;
    Registered & operator=(Registered const &) = delete;
    ~Registered() { Dispatcher().DeleteTarget(m_strTarget); }

private:
    CString m_strTarget;
};
} // namespace faults
