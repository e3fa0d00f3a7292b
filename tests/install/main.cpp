#include "kvx/kvx.h"

// Serves itself a request; the exit status tells whether the answer came.
int main()
{
    CMsgDispatcher::GetInstance()->RegisterProvider(
        _T("foreign.twice"),
        [](CMsgRequest & request, void *)
        {
            CDictionary result;
            result[_T("value")] = 2 * request[_T("value")].ToInteger();
            request.SetResponseValues(result);
        },
        nullptr);
    CMsgRequest request;
    request[_T("value")] = 21;
    request.Execute(_T("foreign.twice"));
    CMsgCursor rows(request.GetResponse());
    return rows.NextRow() && rows[_T("value")] == _T("42") ? 0 : 1;
}
