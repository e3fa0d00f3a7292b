#include "kvx/system/WinVersion.h"

#include "kvx/foundation/StringValue.h"
#include "kvx/foundation/Utilities.h"

#include <tuple>

CWinVersion::CWinVersion()
{
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (GetVersionExW(&info))
    {
        m_nPlatform = info.dwPlatformId;
        m_nMajor = info.dwMajorVersion;
        m_nMinor = info.dwMinorVersion;
        m_strServicePack = info.szCSDVersion;
    }
}

void CWinVersion::FromString(LPCTSTR text)
{
    CString flag;
    CString major;
    CString minor;
    CUtilities::SplitString(text, flag, major, _T("."), 0);
    CUtilities::SplitString(major, major, minor, _T("."), 0);
    constexpr ULONG OLD = 1;
    m_nPlatform = CStringValue(flag).ToInteger() ? NT : OLD;
    m_nMajor = static_cast<ULONG>(CStringValue(major).ToInteger());
    m_nMinor = static_cast<ULONG>(CStringValue(minor).ToInteger());
    m_strServicePack.Empty();
}

CString CWinVersion::ToString() const
{
    CString text;
    text.Format(_T("%d.%d.%d"), IsNT(), static_cast<int>(m_nMajor), static_cast<int>(m_nMinor));
    return text;
}

int CWinVersion::Compare(CWinVersion const & other) const
{
    auto const order =
        std::tie(m_nPlatform, m_nMajor, m_nMinor) <=> std::tie(other.m_nPlatform, other.m_nMajor, other.m_nMinor);
    return order < 0 ? -1 : order > 0;
}

int CWinVersion::Is98SE() const
{
    return Is98() && m_strServicePack.GetLength() > 1 && m_strServicePack[1] == 'A';
}
