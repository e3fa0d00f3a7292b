#include "kvx/platform/win32/security.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/threads.h"

#include <cstring>

#include <unistd.h>

using namespace kvx::win32;

namespace
{

constexpr LONG ERROR_UNKNOWN_REVISION = 1305;
constexpr LONG ERROR_NO_SUCH_LOGON_SESSION = 1312;
constexpr LONG ERROR_INVALID_SID = 1337;

/// Null with last error.
SECURITY_DESCRIPTOR * AsDescriptor(PSECURITY_DESCRIPTOR pDescriptor)
{
    auto * const pFound = static_cast<SECURITY_DESCRIPTOR *>(pDescriptor);
    if (pFound && pFound->Revision == SECURITY_DESCRIPTOR_REVISION)
    {
        return pFound;
    }
    SetLastError(pFound ? ERROR_UNKNOWN_REVISION : ERROR_INVALID_PARAMETER);
    return nullptr;
}

void SetBits(WORD & wControl, WORD wMask, bool bOn)
{
    wControl = static_cast<WORD>(bOn ? wControl | wMask : wControl & ~wMask);
}

class TokenObject final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Token;
    TokenObject() : KernelObject(KIND) {}
};

/// The binary form of an identifier: revision, number of parts, authority (big-endian), parts.
struct WellKnownSid
{
    WELL_KNOWN_SID_TYPE type;
    DWORD nSize;
    BYTE bytes[16];
};

constexpr WellKnownSid WELL_KNOWN_SIDS[] = {
    {WinWorldSid, 12, {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}},
    {WinBuiltinAdministratorsSid, 16, {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 32, 2, 0, 0}},
};

bool IsToken(HANDLE hToken)
{
    return static_cast<bool>(FindObject<TokenObject>(hToken));
}

} // namespace

BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR pDescriptor, DWORD dwRevision)
{
    if (!pDescriptor)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (dwRevision != SECURITY_DESCRIPTOR_REVISION)
    {
        return Refuse(ERROR_UNKNOWN_REVISION);
    }
    *static_cast<SECURITY_DESCRIPTOR *>(pDescriptor) = {
        SECURITY_DESCRIPTOR_REVISION, 0, 0, nullptr, nullptr, nullptr, nullptr};
    return TRUE;
}

BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR pDescriptor, BOOL bPresent, PACL pDacl, BOOL bDefaulted)
{
    SECURITY_DESCRIPTOR * const pTarget = AsDescriptor(pDescriptor);
    if (!pTarget)
    {
        return FALSE;
    }
    SetBits(pTarget->Control, SE_DACL_PRESENT, bPresent);
    SetBits(pTarget->Control, SE_DACL_DEFAULTED, bPresent && bDefaulted);
    pTarget->Dacl = bPresent ? pDacl : nullptr;
    return TRUE;
}

BOOL SetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR pDescriptor, BOOL bPresent, PACL pSacl, BOOL bDefaulted)
{
    SECURITY_DESCRIPTOR * const pTarget = AsDescriptor(pDescriptor);
    if (!pTarget)
    {
        return FALSE;
    }
    SetBits(pTarget->Control, SE_SACL_PRESENT, bPresent);
    SetBits(pTarget->Control, SE_SACL_DEFAULTED, bPresent && bDefaulted);
    pTarget->Sacl = bPresent ? pSacl : nullptr;
    return TRUE;
}

BOOL GetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR pDescriptor, BOOL * pbPresent, PACL * ppSacl, BOOL * pbDefaulted)
{
    SECURITY_DESCRIPTOR const * const pSource = AsDescriptor(pDescriptor);
    if (!pSource)
    {
        return FALSE;
    }
    if (!pbPresent || !ppSacl || !pbDefaulted)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    *pbPresent = (pSource->Control & SE_SACL_PRESENT) != 0;
    if (*pbPresent)
    {
        *ppSacl = pSource->Sacl;
        *pbDefaulted = (pSource->Control & SE_SACL_DEFAULTED) != 0;
    }
    return TRUE;
}

BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(LPCWSTR pszText, DWORD dwRevision,
                                                          PSECURITY_DESCRIPTOR * ppDescriptor, ULONG * pnSize)
{
    if (!pszText || !ppDescriptor)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    *ppDescriptor = nullptr;
    if (pnSize)
    {
        *pnSize = 0;
    }
    return Refuse(dwRevision == SDDL_REVISION_1 ? ERROR_NOT_SUPPORTED : ERROR_UNKNOWN_REVISION);
}

HLOCAL LocalFree(HLOCAL hMemory)
{
    if (hMemory)
    {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return hMemory;
}

BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID pDomain, PSID pSid, DWORD * pnSize)
{
    for (WellKnownSid const & sid : WELL_KNOWN_SIDS)
    {
        if (sid.type == type && !pDomain && pnSize)
        {
            DWORD const nRoom = *pnSize;
            *pnSize = sid.nSize;
            if (!pSid || nRoom < sid.nSize)
            {
                return Refuse(ERROR_INSUFFICIENT_BUFFER);
            }
            std::memcpy(pSid, sid.bytes, sid.nSize);
            return TRUE;
        }
    }
    return Refuse(ERROR_INVALID_PARAMETER);
}

BOOL CheckTokenMembership(HANDLE hToken, PSID pSid, BOOL * pbMember)
{
    if (!pSid || !pbMember)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (hToken && !IsToken(hToken))
    {
        return FALSE;
    }
    for (WellKnownSid const & sid : WELL_KNOWN_SIDS)
    {
        if (std::memcmp(pSid, sid.bytes, 2) == 0 && std::memcmp(pSid, sid.bytes, sid.nSize) == 0)
        {
            *pbMember = sid.type == WinWorldSid || geteuid() == 0;
            return TRUE;
        }
    }
    return Refuse(ERROR_INVALID_SID);
}

BOOL OpenProcessToken(HANDLE hProcess, DWORD, HANDLE * phToken)
{
    if (!phToken)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (hProcess != GetCurrentProcess())
    {
        return Refuse(ERROR_NOT_SUPPORTED);
    }
    *phToken = OpenHandle(Ref<TokenObject>(new TokenObject));
    return *phToken != nullptr;
}

BOOL GetTokenInformation(HANDLE hToken, TOKEN_INFORMATION_CLASS kind, LPVOID, DWORD, DWORD * pnNeeded)
{
    if (!IsToken(hToken))
    {
        return FALSE;
    }
    if (pnNeeded)
    {
        *pnNeeded = 0;
    }
    return Refuse(kind == TokenLinkedToken ? ERROR_NO_SUCH_LOGON_SESSION : ERROR_NOT_SUPPORTED);
}
