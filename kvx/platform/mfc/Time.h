#pragma once

#include "kvx/platform/mfc/Exception.h"

#include <compare>
#include <ctime>

// <windows.h> spells this one as a macro.
#undef GetCurrentTime

/// A difference of two times, in seconds.
class KVX_API CTimeSpan
{
public:
    constexpr CTimeSpan() = default;
    constexpr CTimeSpan(LONGLONG nSeconds) : m_nSpan(nSeconds) {}
    constexpr CTimeSpan(LONG lDays, int nHours, int nMins, int nSecs)
        : m_nSpan(nSecs + 60 * (nMins + 60 * (nHours + LONGLONG{24} * lDays)))
    {
    }

    constexpr LONGLONG GetDays() const { return m_nSpan / 86400; }
    constexpr LONGLONG GetTotalHours() const { return m_nSpan / 3600; }
    constexpr LONG GetHours() const { return static_cast<LONG>(GetTotalHours() % 24); }
    constexpr LONGLONG GetTotalMinutes() const { return m_nSpan / 60; }
    constexpr LONG GetMinutes() const { return static_cast<LONG>(GetTotalMinutes() % 60); }
    constexpr LONGLONG GetTotalSeconds() const { return m_nSpan; }
    constexpr LONG GetSeconds() const { return static_cast<LONG>(m_nSpan % 60); }
    constexpr LONGLONG GetTimeSpan() const { return m_nSpan; }

    /// %D days, %H, %M, %S the rest in two digits, %% a per-cent sign; others raise CInvalidArgException.
    CString Format(LPCTSTR pszFormat) const;

    constexpr CTimeSpan operator+(CTimeSpan span) const { return m_nSpan + span.m_nSpan; }
    constexpr CTimeSpan operator-(CTimeSpan span) const { return m_nSpan - span.m_nSpan; }
    constexpr CTimeSpan & operator+=(CTimeSpan span) { return *this = *this + span; }
    constexpr CTimeSpan & operator-=(CTimeSpan span) { return *this = *this - span; }
    friend constexpr auto operator<=>(CTimeSpan const &, CTimeSpan const &) = default;

private:
    LONGLONG m_nSpan = 0;
};

/// A point in time: seconds since 1970 began, UTC. Fields are in local time.
class KVX_API CTime
{
public:
    constexpr CTime() = default;
    constexpr explicit CTime(LONGLONG nTime) : m_nTime(nTime) {}
    /// Local time. `nDST` is 1 in daylight saving time, 0 outside, -1 as the time zone has it. Fields out of their
    /// bounds (the year is 1900 to 3000) and times before 1970 raise CInvalidArgException; a day that its month
    /// doesn't have is one of the next month.
    CTime(int nYear, int nMonth, int nDay, int nHour, int nMin, int nSec, int nDST = -1);
    /// Local time, as above; a year before 1900 gives time 0.
    explicit CTime(SYSTEMTIME const & st, int nDST = -1);
    /// UTC. Times before 1970 raise CInvalidArgException.
    explicit CTime(FILETIME const & ft, int nDST = -1);

    static CTime GetCurrentTime();

    LONGLONG GetTime() const { return m_nTime; }
    /// The fields; all give 0 for a time that has none (before 1970).
    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    int GetHour() const;
    int GetMinute() const;
    int GetSecond() const;
    /// 1 is Sunday.
    int GetDayOfWeek() const;

    /// The result is `ptm`, or null for a time that has no fields.
    std::tm * GetLocalTm(std::tm * ptm) const;
    std::tm * GetGmtTm(std::tm * ptm) const;
    bool GetAsSystemTime(SYSTEMTIME & st) const;

    /// The directives of strftime, in English, with `#` for "without leading zeros". An unknown one raises
    /// CInvalidArgException. A time that has no fields gives an empty text.
    CString Format(LPCTSTR pszFormat) const;
    CString FormatGmt(LPCTSTR pszFormat) const;

    CTime operator+(CTimeSpan span) const { return CTime(m_nTime + span.GetTimeSpan()); }
    CTime operator-(CTimeSpan span) const { return CTime(m_nTime - span.GetTimeSpan()); }
    CTimeSpan operator-(CTime time) const { return m_nTime - time.m_nTime; }
    CTime & operator+=(CTimeSpan span) { return *this = *this + span; }
    CTime & operator-=(CTimeSpan span) { return *this = *this - span; }
    friend constexpr auto operator<=>(CTime const &, CTime const &) = default;

private:
    LONGLONG m_nTime = 0;
};

namespace kvx
{
/// Fields that are right, weekday and day of the year too, as CTime::Format writes them.
KVX_API CString FormatTime(std::tm const & fields, LPCTSTR pszFormat);
} // namespace kvx
