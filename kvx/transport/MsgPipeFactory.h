#pragma once

/// The pipes' provider, listener and factory. The configuration is `nt_pipe:NAME`, and the same with `local_pipe`,
/// `local_apipe` (texts of one byte a character) and `9x_pipe`.

#include "kvx/messaging/MsgFactory.h"
#include "kvx/transport/MsgListener.h"

class CMsgDispatcher;
class CMsgPipeListener;

/// Makes a connection to a pipe of that name; the listener is null on the client's side.
using MsgPipeCreator = CMsgConnection * (*)(CMsgPipeListener * listener, CString const & name);

class KVX_API CMsgPipeProvider : public CMsgConnectionProvider
{
public:
    CMsgPipeProvider(CString const & name, MsgPipeCreator creator) : m_strName(name), m_pCreator(creator) {}

protected:
    CMsgConnection * CreateConnection() override { return m_pCreator(nullptr, m_strName); }

private:
    CString m_strName;
    MsgPipeCreator m_pCreator;
};

class KVX_API CMsgPipeListener : public CMsgListener
{
public:
    CMsgPipeListener(CString const & name, MsgPipeCreator creator);
    ~CMsgPipeListener() override { EndListener(); }

    /// Waits up to 60 seconds until a client can find the pipe, or it is known that none ever will: see
    /// WaitUntilListening. A listener of the type "9x_pipe" serves from the start, but always waits for the whole time.
    int StartListener() override;
    /// Said by the listening connection: there is an instance of the pipe, or, with a code, there can be none.
    virtual void SignalInstance(DWORD error);
    int WaitUntilListening(DWORD timeout) override;
    /// The same, for a scheme whose pipes have no instances: StartListener doesn't hear of it.
    void ReportPublished(DWORD error);

protected:
    CMsgConnection * CreateConnection() override { return m_pCreator(this, m_strName); }
    void Run() override;

private:
    CString m_strName;
    CEvent m_instanceEvent;              // manual
    CEvent m_findableEvent{FALSE, TRUE}; // manual: the code is known
    std::atomic<DWORD> m_nPublishError{0};
    MsgPipeCreator m_pCreator;
};

class KVX_API CMsgPipeFactory : public CMsgFactory
{
public:
    explicit CMsgPipeFactory(MsgPipeCreator creator) : m_pCreator(creator) {}

    CMsgProvider * CreateProvider(LPCTSTR params) override;
    CMsgListener * CreateListener(LPCTSTR params) override;

    /// Registers the types "9x_pipe", "nt_pipe", "local_pipe" and "local_apipe".
    static void RegisterTypes(CMsgDispatcher & dispatcher);

private:
    MsgPipeCreator m_pCreator;
};
