#include "kvx/kvx.h"

// Serves itself a request; the exit status tells whether the answer came, and whether the resource is there.
int main()
{
#ifndef WITHOUT_RESOURCE
    CStringA project;
    if (!CUtilities::LoadResource(project, _T("project"), _T("TEXT"), nullptr) || project.Find("project(Foreign") < 0)
    {
        return 2;
    }
#endif
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
