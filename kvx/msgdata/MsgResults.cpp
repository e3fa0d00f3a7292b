#include "kvx/msgdata/MsgResults.h"

#include "kvx/messaging/MsgRequest.h"

#include <utility>

namespace
{
/// The response itself, or a copy of one that nobody counts; with one reference for the caller.
CMsgResponse * ShareOrCopy(CMsgResponse * response)
{
    CMsgResponse * const held = response->GetRef() == 0 ? new CMsgResponse(*response) : response;
    held->AddRef();
    return held;
}

CMsgResponse * NewResponse()
{
    auto * const response = new CMsgResponse;
    response->AddRef();
    return response;
}
} // namespace

CMsgResults::CMsgResults() : CMsgCursor(static_cast<CMsgMultipleRowSets *>(nullptr)), m_pResponse(NewResponse()) {}

CMsgResults::CMsgResults(CMsgRequest & request) : CMsgResults(&request.GetResponse()) {}

CMsgResults::CMsgResults(CMsgResults const & other) : CMsgResults(other.m_pResponse) {}

CMsgResults::CMsgResults(CMsgResponse * response)
    : CMsgCursor(static_cast<CMsgMultipleRowSets *>(nullptr)), m_pResponse(ShareOrCopy(response))
{
}

CMsgResults::CMsgResults(CMsgResponse const & response) : CMsgResults(const_cast<CMsgResponse *>(&response)) {}

CMsgResults::~CMsgResults()
{
    m_pResponse->Release(1);
}

CMsgResults & CMsgResults::operator=(CMsgResults const & other)
{
    SetResponse(other.m_pResponse);
    return *this;
}

CMsgResults & CMsgResults::operator=(CMsgResponse const & response)
{
    SetResponse(const_cast<CMsgResponse *>(&response));
    return *this;
}

CMsgResults & CMsgResults::operator=(CMsgResponse * response)
{
    SetResponse(response);
    return *this;
}

void CMsgResults::SetResponse(CMsgResponse * response)
{
    CMsgResponse * const held = ShareOrCopy(response);
    std::exchange(m_pResponse, held)->Release(1);
    RestartCurrentRowSet();
}

/// Whoever else holds the response keeps it as it is.
void CMsgResults::CheckResponseReferences()
{
    if (m_pResponse->GetRef() > 1)
    {
        std::exchange(m_pResponse, NewResponse())->Release(1);
    }
}

void CMsgResults::AssignRowSet(CMsgRowSet * rowSet)
{
    kvx::RefPtr<CMsgRowSet> const keep(rowSet);
    CheckResponseReferences();
    RestartCurrentRowSet();
    m_pResponse->AssignRowSet(rowSet);
}

void CMsgResults::AssignRowSets(CMsgMultipleRowSets * rowSets)
{
    CheckResponseReferences(); // what goes here others hold, so `rowSets` stays also when it belongs to that response
    RestartCurrentRowSet();
    m_pResponse->AssignRowSets(rowSets);
}
