#include "kvx/platform/HostInfo.h"

#include <limits>
#include <tlhelp32.h>

HostInfo GetHostInfo()
{
    // GetVersionEx tells an application what it was built for; the registry tells what runs.
    HKEY hKey = nullptr;
    WCHAR build[64] = {};
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0, KEY_READ, &hKey) == 0)
    {
        DWORD size = sizeof(build) - sizeof(WCHAR);
        RegQueryValueExW(hKey, L"CurrentBuildNumber", nullptr, nullptr, reinterpret_cast<BYTE *>(build), &size);
        RegCloseKey(hKey);
    }
    SYSTEM_INFO system{};
    GetNativeSystemInfo(&system);
    wchar_t const * machine = L"";
    switch (system.wProcessorArchitecture)
    {
    case PROCESSOR_ARCHITECTURE_AMD64:
        machine = L"x86_64";
        break;
    case PROCESSOR_ARCHITECTURE_INTEL:
        machine = L"i686";
        break;
    case PROCESSOR_ARCHITECTURE_ARM64:
        machine = L"arm64";
        break;
    }
    return {L"Windows", build, machine};
}

DWORD CountThreads()
{
    HANDLE const snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
    {
        return std::numeric_limits<DWORD>::max();
    }
    DWORD count = 0;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL bMore = Thread32First(snapshot, &entry); bMore; bMore = Thread32Next(snapshot, &entry))
    {
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    }
    CloseHandle(snapshot);
    return count;
}
