#pragma once

/// A connection over two anonymous pipes, whose ends the two processes duplicate from each other. They find each other
/// through the registry.

#include "kvx/transport/MsgPipeConnection.h"

/// The listener publishes its process id and the write end of its request pipe below
/// HKEY_LOCAL_MACHINE\Software\QMRT\System\9XPipe\NAME, as "p" and "h". A client writes a connection record there: its
/// process id and the write end of its own pipe; the server answers with such a record on the client's pipe, and the
/// client confirms with one byte on the server's.
class KVX_API CMsg9XPipeConnection : public CMsgPipeConnection
{
public:
    CMsg9XPipeConnection(CMsgPipeListener * listener, CString const & name);
    ~CMsg9XPipeConnection() override { CMsg9XPipeConnection::Disconnect(); }

    /// "type" is "9XPipe", "path" the pipe's name.
    int GetConnectionInfo(CValueAccessor & info) override;
    /// At most 5 tries; 0 at once when no server has published itself. A server that dies, or withdraws, ends it.
    int Connect() override;
    /// A listening connection takes back what it has published, unless somebody else has published since.
    int Disconnect() override;
    /// Gives 1 whatever happens; a failure shows in Accept.
    int Listen() override;
    int Accept(CMsgConnection * target) override;

private:
    std::atomic<bool> m_bPublished{false};
    CString m_strRegistryPath;
    CMutex m_mutex; // one client of the name at a time writes to the request pipe

    struct Published
    {
        DWORD nProcess = 0;
        DWORD nHandle = 0;
        bool operator==(Published const &) const = default;
    };
    std::atomic<DWORD> m_nPublishedHandle{0};

    bool Query(Published & published) const;
    bool IsMine(Published const & published) const;
    bool TryConnect(HANDLE server, Published const & published);
    bool AwaitServer(HANDLE pipe, Published const & published) const;
    bool AwaitClient(HANDLE pipe, HANDLE process) const;
};
