#pragma once

/// Security descriptors and the question who the user is. Objects of this layer are the user's own and open to nobody
/// else, whatever a descriptor says: descriptors are carried, not enforced. All calls may come from any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using PSID = void *;
using PSECURITY_DESCRIPTOR = void *;

inline constexpr DWORD SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr DWORD SDDL_REVISION_1 = 1;
inline constexpr DWORD SECURITY_MAX_SID_SIZE = 68; ///< bytes
inline constexpr DWORD TOKEN_DUPLICATE = 0x0002;
inline constexpr DWORD TOKEN_QUERY = 0x0008;

inline constexpr WORD SE_DACL_PRESENT = 0x0004;
inline constexpr WORD SE_DACL_DEFAULTED = 0x0008;
inline constexpr WORD SE_SACL_PRESENT = 0x0010;
inline constexpr WORD SE_SACL_DEFAULTED = 0x0020;

/// A list of access rules. Only null ones, which let everybody in, are made here.
struct ACL
{
    BYTE AclRevision;
    BYTE Sbz1;
    WORD AclSize;
    WORD AceCount;
    WORD Sbz2;
};
using PACL = ACL *;

struct SECURITY_DESCRIPTOR
{
    BYTE Revision;
    BYTE Sbz1;
    WORD Control; ///< SE_ flags
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
};

/// ERROR_INVALID_PARAMETER for null, ERROR_UNKNOWN_REVISION for a revision other than 1; so in all of them.
KVX_API BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR pDescriptor, DWORD dwRevision);
KVX_API BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR pDescriptor, BOOL bPresent, PACL pDacl, BOOL bDefaulted);
KVX_API BOOL SetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR pDescriptor, BOOL bPresent, PACL pSacl, BOOL bDefaulted);
/// *ppSacl is set only if one is present.
KVX_API BOOL GetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR pDescriptor, BOOL * pbPresent, PACL * ppSacl,
                                       BOOL * pbDefaulted);

/// Refused: ERROR_NOT_SUPPORTED, with *ppDescriptor null. This host knows neither the rules nor the labels of such a
/// text. ERROR_INVALID_PARAMETER for null, ERROR_UNKNOWN_REVISION for a revision other than 1.
KVX_API BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(LPCWSTR pszText, DWORD dwRevision,
                                                                  PSECURITY_DESCRIPTOR * ppDescriptor, ULONG * pnSize);

/// Frees what a system call has allocated for the caller. No call of this host does: null gives null, anything else
/// comes back with ERROR_INVALID_HANDLE.
KVX_API HLOCAL LocalFree(HLOCAL hMemory);

enum WELL_KNOWN_SID_TYPE
{
    WinWorldSid = 1,
    WinBuiltinAdministratorsSid = 26,
};

/// Writes the identifier of everybody or of the administrators, at most SECURITY_MAX_SID_SIZE bytes; *pnSize is the
/// room and then the size. ERROR_INSUFFICIENT_BUFFER, or ERROR_INVALID_PARAMETER for another type or a domain.
KVX_API BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID pDomain, PSID pSid, DWORD * pnSize);

/// Whether the caller (a null token, or one of OpenProcessToken) belongs to a group of CreateWellKnownSid: everybody to
/// everybody, to the administrators who runs as the superuser. ERROR_INVALID_SID for another one.
KVX_API BOOL CheckTokenMembership(HANDLE hToken, PSID pSid, BOOL * pbMember);

/// The user of this process (GetCurrentProcess(); another one is ERROR_NOT_SUPPORTED). Close the handle.
KVX_API BOOL OpenProcessToken(HANDLE hProcess, DWORD dwAccess, HANDLE * phToken);

enum TOKEN_INFORMATION_CLASS
{
    TokenLinkedToken = 19,
};

struct TOKEN_LINKED_TOKEN
{
    HANDLE LinkedToken;
};

/// Refused: no user of this host runs with a part of his rights taken away. ERROR_NO_SUCH_LOGON_SESSION for
/// TokenLinkedToken, ERROR_NOT_SUPPORTED for any other class.
KVX_API BOOL GetTokenInformation(HANDLE hToken, TOKEN_INFORMATION_CLASS kind, LPVOID pInformation, DWORD nSize,
                                 DWORD * pnNeeded);
