#pragma once

/// The version of the operating system's interface.

#include "kvx/platform/mfc/Afx.h"

/// A platform identifier (2 is the NT family) with a major and a minor version. On a host other than Windows the
/// default constructor gives what the platform layer offers: the NT family in a version of its own, so that no test
/// that names a system in the field is true there.
class KVX_API CWinVersion : public CObject
{
public:
    /// This system's.
    CWinVersion();
    CWinVersion(ULONG platform, ULONG major, ULONG minor) : m_nPlatform(platform), m_nMajor(major), m_nMinor(minor) {}
    CWinVersion(CWinVersion const & other) = default;
    CWinVersion & operator=(CWinVersion const & other) = default;
    explicit CWinVersion(LPCTSTR text) : CWinVersion(0, 0, 0) { FromString(text); }
    CWinVersion & operator=(LPCTSTR text)
    {
        FromString(text);
        return *this;
    }

    /// "%d.%d.%d": a flag (non-zero is platform 2, else 1), major, minor. What is missing or no number is 0.
    void FromString(LPCTSTR text);
    /// The same form, with the flag 1 or 0.
    CString ToString() const;
    /// By platform, major, minor: -1, 0 or 1.
    int Compare(CWinVersion const & other) const;
    void Invalidate() { m_nPlatform = m_nMajor = m_nMinor = 0; }
    int IsValid() const { return m_nMajor != 0; }

    ULONG GetPlatform() const { return m_nPlatform; }
    ULONG GetMajorVersion() const { return m_nMajor; }
    ULONG GetMinorVersion() const { return m_nMinor; }
    /// Of this system alone, else empty; elsewhere than on Windows the host's name and release.
    CString const & GetServicePack() const { return m_strServicePack; }

    int IsNT() const { return m_nPlatform == NT; }
    int Is9X() const { return m_nPlatform != NT; }
    int Is98() const { return Is9X() && Is(4, 10); }
    int Is98SE() const;
    int IsME() const { return Is9X() && Is(4, 90); }
    int IsNT40() const { return IsNT() && m_nMajor < 5; }
    int Is2000() const { return IsNT() && Is(5, 0); }
    int IsXP() const { return IsNT() && Is(5, 1); }
    int Is2003() const { return IsNT() && Is(5, 2); }
    int IsVista() const { return IsNT() && Is(6, 0); }
    int IsWin7() const { return IsNT() && Is(6, 1); }
    int IsWin8() const { return IsNT() && Is(6, 2); }
    int IsVistaOrGreater() const { return IsNT() && m_nMajor >= 6; }

private:
    static constexpr ULONG NT = 2;

    ULONG m_nPlatform = 0;
    ULONG m_nMajor = 0;
    ULONG m_nMinor = 0;
    CString m_strServicePack;

    bool Is(ULONG major, ULONG minor) const { return m_nMajor == major && m_nMinor == minor; }
};
