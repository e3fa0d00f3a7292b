#include "HostInfoProvider.h"

#include "kvx/messaging/MsgMap.h"
#include "kvx/msgdata/MsgRowSet.h"
#include "kvx/platform/HostInfo.h"

#include <string>

namespace
{
CString ComputerName()
{
    std::basic_string<WCHAR> name(MAX_COMPUTERNAME_LENGTH + 1, 0);
    auto size = static_cast<DWORD>(name.size());
    while (!GetComputerNameW(name.data(), &size))
    {
        if (GetLastError() != ERROR_BUFFER_OVERFLOW)
        {
            return CString();
        }
        name.resize(size);
    }
    return CString(name.c_str());
}
} // namespace

void CHostInfoProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    AddProvider(_T("info.get"), new _MsgMapEntry<CHostInfoProvider>(this, &CHostInfoProvider::OnGet));
}

void CHostInfoProvider::OnGet(CMsgRequest & request)
{
    HostInfo const host = GetHostInfo();
    SYSTEM_INFO system{};
    GetSystemInfo(&system);
    kvx::RefPtr<CMsgRowSet> const rows(new CMsgRowSet(_T("info")));
    POSITION const row = rows->AppendRow();
    rows->SetData(row, _T("name"), ComputerName());
    rows->SetData(row, _T("system"), host.strSystem.c_str());
    rows->SetData(row, _T("release"), host.strRelease.c_str());
    rows->SetData(row, _T("machine"), host.strMachine.c_str());
    rows->SetData(row, _T("cpus"), system.dwNumberOfProcessors);
    rows->SetData(row, _T("pid"), GetCurrentProcessId());
    rows->SetData(row, _T("uptime_s"), static_cast<LONGLONG>(GetTickCount64() / 1000));
    rows->SetData(row, _T("library_version"), _T(KVX_PROGRAM_VERSION));
    request.GetResponse().AssignRowSet(rows.Get());
}
