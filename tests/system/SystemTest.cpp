#include "kvx/foundation/Utilities.h"
#include "kvx/system/WinSecurity.h"
#include "kvx/system/WinVersion.h"

#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"

#include <cstring>
#include <memory>

TEST(Version, TextAndOrder)
{
    CWinVersion version(_T("7.6.1"));
    EXPECT_TRUE(version.IsWin7() && version.IsVistaOrGreater() && version.IsValid());
    EXPECT_EQ(version.ToString(), _T("1.6.1"));
    version = _T("0.4.90");
    EXPECT_TRUE(version.IsME() && version.Is9X() && version.ToString() == _T("0.4.90"));
    EXPECT_FALSE(CWinVersion(_T("x")).IsValid());
    EXPECT_EQ(CWinVersion(2, 5, 1).Compare(CWinVersion(2, 5, 2)), -1);
    EXPECT_EQ(CWinVersion(2, 5, 1).Compare(CWinVersion(1, 6, 0)), 1);
    EXPECT_EQ(CWinVersion(2, 5, 1).Compare(CWinVersion(_T("1.5.1"))), 0);
    EXPECT_TRUE(CWinVersion(2, 4, 0).IsNT40() && CWinVersion(1, 4, 10).Is98() && !CWinVersion(2, 4, 10).Is98());
}

TEST(System, AnswersAreTrueHere)
{
    EXPECT_TRUE(CUtilities::IsSupportedOS() && !CUtilities::IsUnsupportedOS() && !CUtilities::IsWin8());
    EXPECT_EQ(CWinVersion().GetServicePack().AsView().starts_with(_T("Linux ")), !host::IsWindows());
    HANDLE const process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, GetCurrentProcessId());
    EXPECT_EQ(CUtilities::Is32BitProcess(process), sizeof(void *) == 4);
    CloseHandle(process);
    CpuIdent cpu;
    EXPECT_TRUE(CUtilities::ReadCPUID(&cpu));
    EXPECT_EQ(std::strlen(cpu.szVendor), 12u);

    int local = 0;
    EXPECT_TRUE(CUtilities::IsValidAddress(&local));
    EXPECT_FALSE(CUtilities::IsValidAddress(nullptr) ||
                 CUtilities::IsValidAddress(reinterpret_cast<void *>(~UINT_PTR(0))));
    EXPECT_EQ(CUtilities::ModuleFromAddress(nullptr), nullptr);
    static int const s_constant = 1;
    EXPECT_EQ(CUtilities::ModuleFromAddress(const_cast<int *>(&s_constant)), GetModuleHandleW(nullptr));

    CString path = _T("x");
    EXPECT_FALSE(CUtilities::GetClassInprocServerPath(_T("{no such class}"), path));
    EXPECT_TRUE(path.IsEmpty());
}

TEST(Security, DescriptorsAreCarriedAndTextsRefused)
{
    auto & descriptor = CWinSecurityDescriptor::NULL_DACL.GetDescriptor();
    EXPECT_TRUE(descriptor.Control & SE_DACL_PRESENT);
    EXPECT_EQ(descriptor.Dacl, nullptr);
    EXPECT_TRUE(CloseHandle(CreateEventW(CWinSecurityAttributes::NULL_DACL, TRUE, FALSE, nullptr)));

    CWinSecurityDescriptor own;
    BOOL present = FALSE;
    PACL list = nullptr;
    BOOL defaulted = FALSE;
    ACL rules{};
    EXPECT_TRUE(SetSecurityDescriptorSacl(own, TRUE, &rules, FALSE));
    EXPECT_TRUE(GetSecurityDescriptorSacl(own, &present, &list, &defaulted) && present && list == &rules);
    EXPECT_FALSE(InitializeSecurityDescriptor(own, 2));
    PSECURITY_DESCRIPTOR made = own;
    if (!host::IsWindows()) // where there are no labels (2026-11-22)
    {
        EXPECT_TRUE(
            Fails(ConvertStringSecurityDescriptorToSecurityDescriptorW(_T("S:(ML;;NW;;;LW)"), 1, &made, nullptr), 50));
        EXPECT_EQ(made, nullptr);
    }

    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = 3;
    EXPECT_TRUE(Fails(CreateWellKnownSid(WinWorldSid, nullptr, sid, &size), 122));
    BOOL member = FALSE;
    EXPECT_TRUE(CreateWellKnownSid(WinWorldSid, nullptr, sid, &size) && CheckTokenMembership(nullptr, sid, &member) &&
                member);
    sid[8] = 9; // somebody else's
    EXPECT_FALSE(CheckTokenMembership(nullptr, sid, &member) && member);
    EXPECT_TRUE(CloseHandle(token));
    EXPECT_TRUE(Fails(CheckTokenMembership(token, sid, &member), 6));
}
