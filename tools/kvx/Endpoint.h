#pragma once

/// Where the calls of this process go, and how its requests are made.

#include "HostProviders.h"

#include "kvx/messaging/MsgRequest.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace CLI
{
class App;
}
class CMsgConnectionProvider;

/// Adds the words that all commands that call have in common: CONNECTION COMMAND [NAME=VALUE ...].
struct CallWords
{
    std::string strConnection;
    std::string strCommand;
    std::vector<std::string> params;

    void AddTo(CLI::App & command);
    /// The request that the words ask for.
    void Fill(CMsgRequest & request) const;
};

/// The library reads a configuration leniently: a port that is no number is 0, a large one is cut. Gives what is wrong
/// with a provider's or a listener's configuration, or an empty text.
CString CheckConfiguration(CString const & config);

/// Makes the whole tree of this process lead to a connection (`tcp:HOST:PORT`), or to the providers of `host` in the
/// process itself (`inproc`). There is one at a time.
class Endpoint
{
public:
    Endpoint() = default;
    Endpoint(Endpoint const &) = delete;
    Endpoint & operator=(Endpoint const &) = delete;
    ~Endpoint();

    /// False, with a line on stderr, for a connection that there is no provider for. Nothing is connected yet.
    bool Open(std::string_view connection);

    /// A connection for requests to be pinned to (CMsgRequest::SetConnection), owned by the endpoint; null in the
    /// process.
    CMsgConnection * NewConnection();
    /// Connects it, so that the first call needn't. A failure shows at the call.
    static void Connect(CMsgConnection * connection);
    /// Ends what is under way, on that connection or in the process; to be repeated until it has ended. Any thread.
    void Break(CMsgConnection * connection);

private:
    CMsgConnectionProvider * m_pProvider = nullptr; // the tree's
    std::unique_ptr<HostProviders> m_host;
};
