#include "kvx/platform/mfc/OleDateTime.h"

#include <chrono>
#include <cmath>
#include <optional>

namespace
{
using namespace std::chrono;

constexpr sys_days DAY_ZERO = 1899y / December / 30;
constexpr sys_days FIRST_DAY = 100y / January / 1;
constexpr sys_days LAST_DAY = 9999y / December / 31;

struct Moment
{
    sys_days day;
    milliseconds time; // since midnight

    DATE ToDate() const
    {
        auto const whole = static_cast<double>((day - DAY_ZERO).count());
        double const part = static_cast<double>(time.count()) / static_cast<double>(milliseconds(days(1)).count());
        return whole < 0 ? whole - part : whole + part;
    }
};

std::optional<Moment> ToMoment(SYSTEMTIME const & time)
{
    year_month_day const date(year(time.wYear), month(time.wMonth), day(time.wDay));
    if (!date.ok() || sys_days(date) < FIRST_DAY || sys_days(date) > LAST_DAY || time.wHour > 23 || time.wMinute > 59 ||
        time.wSecond > 59 || time.wMilliseconds > 999)
    {
        return std::nullopt;
    }
    return Moment{date,
                  hours(time.wHour) + minutes(time.wMinute) + seconds(time.wSecond) + milliseconds(time.wMilliseconds)};
}

std::optional<Moment> ToMoment(DATE date)
{
    double const whole = std::trunc(date);
    double const part = std::abs(date - whole);
    // The comparison also fails for what is no number.
    if (!(std::abs(whole) < 10'000'000))
    {
        return std::nullopt;
    }
    Moment moment{DAY_ZERO + days(static_cast<int>(whole)),
                  milliseconds(std::llround(part * static_cast<double>(milliseconds(days(1)).count())))};
    if (moment.time == days(1))
    {
        moment = {moment.day + days(1), milliseconds(0)};
    }
    if (moment.day < FIRST_DAY || moment.day > LAST_DAY)
    {
        return std::nullopt;
    }
    return moment;
}

SYSTEMTIME ToFields(Moment const & moment)
{
    year_month_day const date(moment.day);
    hh_mm_ss const time(moment.time);
    SYSTEMTIME fields{};
    fields.wYear = static_cast<WORD>(static_cast<int>(date.year()));
    fields.wMonth = static_cast<WORD>(static_cast<unsigned>(date.month()));
    fields.wDay = static_cast<WORD>(static_cast<unsigned>(date.day()));
    fields.wDayOfWeek = static_cast<WORD>(weekday(moment.day).c_encoding());
    fields.wHour = static_cast<WORD>(time.hours().count());
    fields.wMinute = static_cast<WORD>(time.minutes().count());
    fields.wSecond = static_cast<WORD>(time.seconds().count());
    fields.wMilliseconds = static_cast<WORD>(time.subseconds().count());
    return fields;
}

int FieldOf(COleDateTime const & time, WORD SYSTEMTIME::*field)
{
    SYSTEMTIME fields;
    return time.GetAsSystemTime(fields) ? int{fields.*field} : int{COleDateTime::error};
}

bool IsWord(int value)
{
    return value >= 0 && value <= 0xFFFF;
}
} // namespace

COleDateTime::COleDateTime(DATE date) : m_dt(date), m_status(ToMoment(date) ? valid : invalid) {}

COleDateTime::COleDateTime(SYSTEMTIME const & time)
{
    auto const moment = ToMoment(time);
    m_dt = moment ? moment->ToDate() : 0;
    m_status = moment ? valid : invalid;
}

COleDateTime::COleDateTime(int year, int month, int day, int hour, int minute, int second)
{
    SetDateTime(year, month, day, hour, minute, second);
}

COleDateTime COleDateTime::GetCurrentTime()
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    return now;
}

int COleDateTime::SetDateTime(int year, int month, int day, int hour, int minute, int second)
{
    SYSTEMTIME fields{};
    bool bGood = true;
    for (auto const & [value, field] :
         {std::pair(year, &SYSTEMTIME::wYear), std::pair(month, &SYSTEMTIME::wMonth), std::pair(day, &SYSTEMTIME::wDay),
          std::pair(hour, &SYSTEMTIME::wHour), std::pair(minute, &SYSTEMTIME::wMinute),
          std::pair(second, &SYSTEMTIME::wSecond)})
    {
        bGood = bGood && IsWord(value);
        fields.*field = static_cast<WORD>(value);
    }
    *this = COleDateTime(fields);
    m_status = bGood ? m_status : invalid;
    return m_status;
}

bool COleDateTime::GetAsSystemTime(SYSTEMTIME & time) const
{
    auto const moment = m_status == valid ? ToMoment(m_dt) : std::nullopt;
    if (moment)
    {
        time = ToFields(*moment);
    }
    return moment.has_value();
}

int COleDateTime::GetYear() const
{
    return FieldOf(*this, &SYSTEMTIME::wYear);
}

int COleDateTime::GetMonth() const
{
    return FieldOf(*this, &SYSTEMTIME::wMonth);
}

int COleDateTime::GetDay() const
{
    return FieldOf(*this, &SYSTEMTIME::wDay);
}

int COleDateTime::GetHour() const
{
    return FieldOf(*this, &SYSTEMTIME::wHour);
}

int COleDateTime::GetMinute() const
{
    return FieldOf(*this, &SYSTEMTIME::wMinute);
}

int COleDateTime::GetSecond() const
{
    return FieldOf(*this, &SYSTEMTIME::wSecond);
}

CString COleDateTime::Format(LPCTSTR format) const
{
    if (m_status == null)
    {
        return {};
    }
    SYSTEMTIME fields;
    if (!GetAsSystemTime(fields))
    {
        return _T("Invalid DateTime");
    }
    year const thisYear(fields.wYear);
    std::tm time{};
    time.tm_year = fields.wYear - 1900;
    time.tm_mon = fields.wMonth - 1;
    time.tm_mday = fields.wDay;
    time.tm_hour = fields.wHour;
    time.tm_min = fields.wMinute;
    time.tm_sec = fields.wSecond;
    time.tm_wday = fields.wDayOfWeek;
    time.tm_yday = (sys_days(thisYear / month(fields.wMonth) / day(fields.wDay)) - sys_days(thisYear / 1 / 1)).count();
    return kvx::FormatTime(time, format);
}
