#pragma once

#include "Endpoint.h"

#include <functional>
#include <memory>

/// A call on a thread of its own, so that it can be given up.
class PendingCall
{
public:
    enum class End
    {
        Answered,
        GivenUp, ///< and broken off: the response says nothing
        Stuck    ///< it can't be broken off (a look-up of a host name can't), and its thread still uses the request
    };

    PendingCall(PendingCall const &) = delete;
    PendingCall & operator=(PendingCall const &) = delete;

    /// Null, with an error line, if there is no thread for it. `fill` makes the request.
    static std::unique_ptr<PendingCall> Start(Endpoint & endpoint, CMsgConnection * connection,
                                              std::function<void(CMsgRequest &)> const & fill);
    /// Waits until it is answered, the time is over or `isUnwanted`, which is asked from time to time, says so. An
    /// object that is stuck must not be deleted: end the process by std::_Exit.
    End Wait(DWORD timeout, std::function<bool()> const & isUnwanted = {});

    CMsgResponse & GetResponse() { return m_request.GetResponse(); }

private:
    Endpoint & m_endpoint;
    CMsgRequest m_request;
    CEvent m_done{FALSE, TRUE};

    explicit PendingCall(Endpoint & endpoint) : m_endpoint(endpoint) {}
    static unsigned int Proc(void * param);
};
