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

/// What is wrong with a word that should be a connection or NAME=VALUE, as command lines' checks give it.
std::string CheckConnectionWord(std::string const & word);
std::string CheckParamWord(std::string const & word);
/// Sets the parameter that a word NAME=VALUE names.
void FillParam(CMsgRequest & request, std::string_view word);

/// What CONNECTION may be, for help texts.
inline constexpr char CONNECTION_HELP[] =
    "Connections:\n"
    "  tcp:HOST:PORT          a service on this machine or another one\n"
    "  nt_pipe:NAME           a named pipe of this machine, also local_pipe:NAME\n"
    "  local_apipe:NAME       such a pipe with texts of one byte a character\n"
    "  9x_pipe:NAME           anonymous pipes, found through the registry\n"
    "  inproc:MODULE@NAME     a provider in a module, loaded into this process\n"
    "  relay:CONNECTION       the same by connections of its own\n"
    "  forward:CONNECTION     the same without the path that it is mounted on\n";

/// The library reads a configuration leniently: a port that is no number is 0. Gives what is wrong with a provider's
/// configuration before anything is tried, which is wrong usage, or an empty text.
CString CheckConnection(CString const & config);
/// The same for a listener's, which `event:NAME;` may stand in front of.
CString CheckListener(CString const & config);

/// Puts a provider that was checked on a path of this process's tree. Null, with an error line, if it can't be made or
/// started.
CMsgProvider * MountProvider(CString const & path, CString const & config);

/// Makes the whole tree of this process lead to a connection, or to the providers of `host` in the process itself
/// (`inproc`). There is one at a time.
class Endpoint
{
public:
    Endpoint() = default;
    Endpoint(Endpoint const &) = delete;
    Endpoint & operator=(Endpoint const &) = delete;
    ~Endpoint();

    /// False, with a line on stderr, for a connection that no provider can be made for. Nothing is connected yet.
    bool Open(std::string_view connection);

    /// A connection for requests to be pinned to (CMsgRequest::SetConnection), owned by the endpoint; null where
    /// requests can't be pinned: in the process, and for relays and forwarders.
    CMsgConnection * NewConnection();
    /// Connects it, so that the first call needn't. A failure shows at the call.
    static void Connect(CMsgConnection * connection);
    /// Ends what is under way, on that connection or in the process; to be repeated until it has ended. False if there
    /// is nothing that could be ended. Any thread.
    bool Break(CMsgConnection * connection);

private:
    CMsgConnectionProvider * m_pProvider = nullptr; // the tree's
    std::unique_ptr<HostProviders> m_host;
};
