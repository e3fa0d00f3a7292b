#pragma once

#include "kvx/platform/mfc/Time.h"

/// Days since 30 December 1899 and the part of the day, without a time zone. Before that day the days are negative, and
/// the part of the day counts all the same from midnight on: -1.25 is 06:00 on the 29th.
using DATE = double;

/// A date and time from the year 100 to 9999, to the millisecond, or none (`null`), or one that couldn't be made
/// (`invalid`). Nothing raises an exception but a bad format.
class KVX_API COleDateTime
{
public:
    enum DateTimeStatus
    {
        error = -1,
        valid = 0,
        invalid = 1,
        null = 2
    };

    COleDateTime() = default;
    COleDateTime(DATE date);
    COleDateTime(SYSTEMTIME const & time);
    COleDateTime(int year, int month, int day, int hour, int minute, int second);

    /// Local time.
    static COleDateTime GetCurrentTime();

    DateTimeStatus GetStatus() const { return m_status; }
    void SetStatus(DateTimeStatus status) { m_status = status; }
    /// The new status: fields that make no time are `invalid`.
    int SetDateTime(int year, int month, int day, int hour, int minute, int second);
    /// False unless valid.
    bool GetAsSystemTime(SYSTEMTIME & time) const;

    /// The fields, `error` unless valid.
    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    int GetHour() const;
    int GetMinute() const;
    int GetSecond() const;

    /// As CTime::Format; empty for `null`, "Invalid DateTime" for `invalid`.
    CString Format(LPCTSTR format) const;

    bool operator==(COleDateTime const & other) const { return m_status == other.m_status && m_dt == other.m_dt; }

    DATE m_dt = 0;
    DateTimeStatus m_status = valid;
};
