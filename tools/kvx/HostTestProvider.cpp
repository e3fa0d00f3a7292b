#include "HostTestProvider.h"

#include "HostParams.h"
#include "Output.h"

#include "kvx/messaging/MsgMap.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"

#include <limits>

namespace
{
constexpr LONGLONG SLEEP_MAX = 600'000; // milliseconds
}

void CHostTestProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    AddProvider(_T("echo"), new _MsgMapEntry<CHostTestProvider>(this, &CHostTestProvider::OnEcho));
    AddProvider(_T("fail"), new _MsgMapEntry<CHostTestProvider>(this, &CHostTestProvider::OnFail));
    AddProvider(_T("sleep"), new _MsgMapEntry<CHostTestProvider>(this, &CHostTestProvider::OnSleep));
    AddProvider(_T("count"), new _MsgMapEntry<CHostTestProvider>(this, &CHostTestProvider::OnCount));
}

int CHostTestProvider::StopProvider()
{
    return m_stop.SetEvent();
}

void CHostTestProvider::OnEcho(CMsgRequest & request)
{
    CMsgMultipleRowSets * const received = request.GetExParams();
    // A few bytes of a request can claim any number of empty rows, and the answer would have to spell them out.
    if (CountClaimedCells(*received) > CELL_LIMIT)
    {
        request.SetResponseError(ERROR_INVALID_PARAMETER, _T("The row sets of the request have more than %I64u cells"),
                                 CELL_LIMIT);
        return;
    }
    kvx::RefPtr<CMsgRowSet> const echo(new CMsgRowSet(_T("echo")));
    POSITION row = echo->AppendRow();
    echo->SetRow(row, request);
    kvx::RefPtr<CMsgMultipleRowSets> const answer(new CMsgMultipleRowSets);
    answer->Append(echo.Get());
    answer->Append(received);
    request.GetResponse().AssignRowSets(answer.Get());
}

void CHostTestProvider::OnFail(CMsgRequest & request)
{
    auto const code = ReadNumber(request, _T("code"), std::nullopt, 0, std::numeric_limits<DWORD>::max());
    if (!code)
    {
        return;
    }
    CString const text = static_cast<CValueAccessor const &>(request).GetValue(_T("text"));
    if (text.IsEmpty())
    {
        request.GetResponse().SetError(static_cast<DWORD>(*code), nullptr);
    }
    else
    {
        request.SetResponseError(static_cast<DWORD>(*code), _T("%s"), text);
    }
}

void CHostTestProvider::OnSleep(CMsgRequest & request)
{
    auto const ms = ReadNumber(request, _T("ms"), std::nullopt, 0, SLEEP_MAX);
    if (ms && m_stop.Lock(static_cast<DWORD>(*ms)))
    {
        request.GetResponse().SetError(ERROR_OPERATION_ABORTED, nullptr);
    }
}

void CHostTestProvider::OnCount(CMsgRequest & request)
{
    using Limits = std::numeric_limits<LONGLONG>;
    auto const add = ReadNumber(request, _T("add"), 0, Limits::min(), Limits::max());
    if (!add)
    {
        return;
    }
    // Wraps around at the end of its range.
    auto const count =
        static_cast<LONGLONG>(static_cast<ULONGLONG>(m_nCount.fetch_add(*add)) + static_cast<ULONGLONG>(*add));
    kvx::RefPtr<CMsgRowSet> const rows(new CMsgRowSet(_T("count")));
    rows->SetData(rows->AppendRow(), _T("count"), count);
    request.GetResponse().AssignRowSet(rows.Get());
}
