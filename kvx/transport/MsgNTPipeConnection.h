#pragma once

/// A connection over a named pipe.

#include "kvx/transport/MsgPipeConnection.h"

/// The name is `pipe` or `machine:pipe`. On POSIX hosts only this machine's pipes can be reached.
/// Errors: 2250 when a client can't connect, for whatever reason.
class KVX_API CMsgNTPipeConnection : public CMsgPipeConnection
{
public:
    CMsgNTPipeConnection(CMsgPipeListener * listener, CString const & name, int unicode);
    ~CMsgNTPipeConnection() override { CMsgNTPipeConnection::Disconnect(); }

    /// "type" is "NTPipe", "path" the pipe's.
    int GetConnectionInfo(CValueAccessor & info) override;
    /// Waits up to 10 seconds for a free instance of the pipe. While others are quicker it goes on waiting: 5 tries of
    /// a second of that.
    int Connect() override;
    int Disconnect() override;
    /// The pipe comes into being with Accept.
    int Listen() override;
    /// Gives the target an instance of the pipe that a client has opened. The next instance is there before that, so
    /// that no client finds the pipe missing between two calls; Disconnect removes it. Fails behind a Disconnect until
    /// the next Listen.
    int Accept(CMsgConnection * target) override;

private:
    std::atomic<HANDLE> m_hNext{INVALID_HANDLE_VALUE};
    std::atomic<bool> m_bDropped{false}; // since the last Listen
    bool m_bAccepts = false;             // there has been an instance since then
    int AcceptNext(CMsgConnection * target);

    void SignalInstance(DWORD error);
    HANDLE CreateInstance() const;
    static bool WaitForClient(HANDLE pipe);
    void DropNext();
};
