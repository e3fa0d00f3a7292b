#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/system/WinModule.h"
#include "kvx/system/WinVersion.h"

#include <atomic>
#include <cpuid.h>
#include <cstring>

namespace
{
CWinVersion const & ThisVersion()
{
    static CWinVersion const & s_version = *new CWinVersion; // never gone
    return s_version;
}

/// A function that a system module may or may not export.
template <class FUNCTION>
FUNCTION * FindSystemProcedure(LPCTSTR module, char const * name)
{
    HMODULE const hModule = GetModuleHandleW(module);
    FARPROC const procedure = hModule ? GetProcAddress(hModule, name) : nullptr;
    return reinterpret_cast<FUNCTION *>(reinterpret_cast<void *>(procedure));
}

using IsWow64Proc = BOOL WINAPI(HANDLE, BOOL *);

IsWow64Proc * GetIsWow64Process()
{
    static IsWow64Proc * const s_procedure = FindSystemProcedure<IsWow64Proc>(_T("kernel32"), "IsWow64Process");
    return s_procedure;
}

// Each of the two questions is answered once: the pointer holds a function that finds the answer, and then one that
// only gives it. Threads that ask at the same time find the same.
using Answer = int (*)();
int FindIs32BitOS();
int FindIsWow64();
constinit std::atomic<Answer> g_pIs32BitOS{&FindIs32BitOS};
constinit std::atomic<Answer> g_pIsWow64{&FindIsWow64};

int Remember(std::atomic<Answer> & pointer, bool answer)
{
    pointer.store(answer ? Answer([] { return 1; }) : Answer([] { return 0; }), std::memory_order_relaxed);
    return answer;
}

int FindIs32BitOS()
{
    bool b64 = false;
    if (GetIsWow64Process())
    {
        using NativeInfoProc = void WINAPI(SYSTEM_INFO *);
        if (auto * const getInfo = FindSystemProcedure<NativeInfoProc>(_T("kernel32"), "GetNativeSystemInfo"))
        {
            SYSTEM_INFO info{};
            getInfo(&info);
            b64 = info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
        }
    }
    return Remember(g_pIs32BitOS, !b64);
}

int FindIsWow64()
{
    BOOL bWow64 = FALSE;
    IsWow64Proc * const isWow64 = GetIsWow64Process();
    return Remember(g_pIsWow64, isWow64 && isWow64(GetCurrentProcess(), &bWow64) && bWow64);
}

bool IsAdministrator(HANDLE hToken)
{
    using CreateSidProc = BOOL WINAPI(WELL_KNOWN_SID_TYPE, PSID, PSID, DWORD *);
    auto * const createSid = FindSystemProcedure<CreateSidProc>(_T("Advapi32.dll"), "CreateWellKnownSid");
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD nSize = sizeof sid;
    BOOL bMember = FALSE;
    return createSid && createSid(WinBuiltinAdministratorsSid, nullptr, sid, &nSize) &&
           CheckTokenMembership(hToken, sid, &bMember) && bMember;
}

bool IsUserAdmin()
{
    if (IsAdministrator(nullptr))
    {
        return true;
    }
    // A user who runs with reduced rights has a second token with all of them.
    HANDLE hToken = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &hToken))
    {
        return false;
    }
    TOKEN_LINKED_TOKEN linked{};
    DWORD nSize = 0;
    bool const bLinked = GetTokenInformation(hToken, TokenLinkedToken, &linked, sizeof linked, &nSize);
    CloseHandle(hToken);
    if (!bLinked)
    {
        return false;
    }
    bool const bAdministrator = IsAdministrator(linked.LinkedToken);
    CloseHandle(linked.LinkedToken);
    return bAdministrator;
}

bool IsHypervisor(char const * vendor)
{
    constexpr DWORD HYPERVISOR_BIT = 1u << 31;
    CpuIdent cpu;
    return CUtilities::ReadCPUID(&cpu) && (cpu.nFeatures2 & HYPERVISOR_BIT) &&
           std::strcmp(cpu.szHypervisor, vendor) == 0;
}

/// The bytes of a resource; null, with a line in the log.
void const * FindBytes(ULONG & size, LPCTSTR name, CString const & type, HINSTANCE module)
{
    size = 0;
    HRSRC const resource = FindResourceW(module, name, type);
    HGLOBAL const data = resource ? ::LoadResource(module, resource) : nullptr;
    void const * const bytes = data ? LockResource(data) : nullptr;
    if (bytes)
    {
        size = SizeofResource(module, resource);
    }
    else
    {
        CString text;
        if (IS_INTRESOURCE(name))
        {
            text.Format(_T("#%u"), static_cast<UINT>(reinterpret_cast<ULONG_PTR>(name)));
        }
        else
        {
            text = name;
        }
        LogError(_T("Error loading resource of type %s: %s"), type, text);
    }
    return bytes;
}
} // namespace

int CUtilities::IsSupportedOS()
{
    return ThisVersion().IsNT();
}

int CUtilities::IsUnsupportedOS()
{
    return ThisVersion().Is9X();
}

int CUtilities::IsWin98()
{
    return ThisVersion().Is98();
}

int CUtilities::IsWin98SE()
{
    return ThisVersion().Is98SE();
}

int CUtilities::IsWinME()
{
    return ThisVersion().IsME();
}

int CUtilities::IsWinNT40()
{
    return ThisVersion().IsNT40();
}

int CUtilities::IsWin2000()
{
    return ThisVersion().Is2000();
}

int CUtilities::IsWinXP()
{
    return ThisVersion().IsXP();
}

int CUtilities::IsWin2003()
{
    return ThisVersion().Is2003();
}

int CUtilities::IsVista()
{
    return ThisVersion().IsVista();
}

int CUtilities::IsWin7()
{
    return ThisVersion().IsWin7();
}

int CUtilities::IsWin8()
{
    return ThisVersion().IsWin8();
}

int CUtilities::IsVistaOrGreater()
{
    return ThisVersion().IsVistaOrGreater();
}

int CUtilities::Is32BitOS()
{
    return g_pIs32BitOS.load(std::memory_order_relaxed)();
}

int CUtilities::IsWow64()
{
    return g_pIsWow64.load(std::memory_order_relaxed)();
}

int CUtilities::Is32BitProcess(HANDLE process)
{
    IsWow64Proc * const isWow64 = GetIsWow64Process();
    if (Is32BitOS() || !isWow64)
    {
        return 1;
    }
    BOOL bWow64 = FALSE;
    return isWow64(process ? process : GetCurrentProcess(), &bWow64) && bWow64;
}

int CUtilities::IsCurrentUserLocalAdministrator()
{
    return IsUserAdmin();
}

int CUtilities::IsValidAddress(void * address)
{
    MEMORY_BASIC_INFORMATION info{};
    return VirtualQuery(address, &info, sizeof info) && info.Protect != PAGE_NOACCESS;
}

HMODULE CUtilities::ModuleFromAddress(void * address)
{
    MEMORY_BASIC_INFORMATION info{};
    return VirtualQuery(address, &info, sizeof info) ? static_cast<HMODULE>(info.AllocationBase) : nullptr;
}

int CUtilities::GetClassInprocServerPath(CString const & clsid, CString & path)
{
    path.Empty();
    CString name;
    name.Format(_T("CLSID\\%s\\InprocServer32"), clsid);
    HKEY key = nullptr;
    LONG code = RegOpenKeyExW(HKEY_CLASSES_ROOT, name, 0, KEY_QUERY_VALUE, &key);
    if (code == ERROR_SUCCESS)
    {
        DWORD type = 0;
        DWORD size = 0;
        code = RegQueryValueExW(key, nullptr, nullptr, &type, nullptr, &size);
        if (code == ERROR_SUCCESS && type != REG_SZ && type != REG_EXPAND_SZ)
        {
            code = ERROR_INVALID_DATA;
        }
        if (code == ERROR_SUCCESS)
        {
            int const length = static_cast<int>(size / sizeof(WCHAR));
            LPTSTR const buffer = path.GetBuffer(length + 1);
            code = RegQueryValueExW(key, nullptr, nullptr, nullptr, reinterpret_cast<BYTE *>(buffer), &size);
            path.ReleaseBuffer(code == ERROR_SUCCESS ? static_cast<int>(size / sizeof(WCHAR)) : 0);
            path = CString(path.GetString()); // up to the closing zero that is part of the value
        }
        RegCloseKey(key);
    }
    SetLastError(static_cast<DWORD>(code));
    return code == ERROR_SUCCESS;
}

void * CUtilities::LoadResource(ULONG & size, LPCTSTR name, CString const & type, HINSTANCE module)
{
    return const_cast<void *>(FindBytes(size, name, type, module));
}

int CUtilities::LoadResource(CStringA & bytes, LPCTSTR name, CString const & type, HINSTANCE module)
{
    ULONG size = 0;
    auto const * const found = static_cast<char const *>(FindBytes(size, name, type, module));
    bytes = found ? CStringA(found, static_cast<int>(size)) : CStringA();
    return found != nullptr;
}

int CUtilities::LoadResource(CString & text, LPCTSTR name, CString const & type, HINSTANCE module)
{
    ULONG size = 0;
    void const * const found = FindBytes(size, name, type, module);
    text.Empty();
    if (found)
    {
        int const length = static_cast<int>(size / sizeof(WCHAR));
        std::memcpy(text.GetBuffer(length + 1), found, static_cast<std::size_t>(length) * sizeof(WCHAR));
        text.ReleaseBuffer(length);
    }
    return found != nullptr;
}

int CUtilities::ReadCPUID(CpuIdent * cpu)
{
    *cpu = {};
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (!__get_cpuid(0, &a, &b, &c, &d))
    {
        return 0;
    }
    unsigned const vendor[] = {b, d, c};
    std::memcpy(cpu->szVendor, vendor, sizeof vendor);
    __get_cpuid(1, &a, &b, &c, &d);
    cpu->nFeatures = d;
    cpu->nFeatures2 = c;
    cpu->nStepping = a & 15;
    cpu->nModel = a >> 4 & 15;
    cpu->nFamily = a >> 8 & 15;
    if (cpu->nFamily == 6 || cpu->nFamily == 15)
    {
        cpu->nModel |= a >> 12 & 0xF0;
    }
    if (cpu->nFamily == 15)
    {
        cpu->nFamily += a >> 20 & 0xFF;
    }
    constexpr unsigned HYPERVISOR_LEAF = 0x40000000;
    if (c >> 31)
    {
        __cpuid(HYPERVISOR_LEAF, a, b, c, d);
        unsigned const hypervisor[] = {b, c, d};
        std::memcpy(cpu->szHypervisor, hypervisor, sizeof hypervisor);
    }
    return 1;
}

int CUtilities::IsInsideVMWare()
{
    return IsHypervisor("VMwareVMware");
}

int CUtilities::IsInsideVPC()
{
    return IsHypervisor("Microsoft Hv");
}
