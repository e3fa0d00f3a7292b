#include "kvx/platform/mfc/Time.h"

#include <array>
#include <charconv>
#include <string_view>

namespace
{
constexpr ULONGLONG TICKS_PER_SECOND = 10'000'000;
constexpr ULONGLONG SECONDS_1601_TO_1970 = 11'644'473'600;

constexpr std::array<std::string_view, 7> DAYS = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                  "Thursday", "Friday", "Saturday"};
constexpr std::array<std::string_view, 12> MONTHS = {"January",   "February", "March",    "April",
                                                     "May",       "June",     "July",     "August",
                                                     "September", "October",  "November", "December"};

bool Within(int nValue, int nLow, int nHigh)
{
    return nValue >= nLow && nValue <= nHigh;
}

std::tm LocalFields(CTime const & time)
{
    std::tm fields{};
    time.GetLocalTm(&fields);
    return fields;
}

class CTimeFormatter
{
public:
    explicit CTimeFormatter(std::tm const & fields) : m_fields(fields) {}

    CString Format(LPCTSTR pszFormat)
    {
        if (!pszFormat)
        {
            AfxThrowInvalidArgException();
        }
        for (; *pszFormat; ++pszFormat)
        {
            if (*pszFormat != '%')
            {
                m_strText += *pszFormat;
                continue;
            }
            m_bShort = *++pszFormat == '#';
            if (m_bShort)
            {
                ++pszFormat;
            }
            Append(*pszFormat);
        }
        return m_strText;
    }

private:
    std::tm const & m_fields;
    CString m_strText;
    bool m_bShort = false;

    void Text(std::string_view text)
    {
        for (auto const c : text)
        {
            m_strText += static_cast<WCHAR>(c);
        }
    }
    void Number(int nValue, int nDigits, char cFill = '0')
    {
        std::array<char, 16> digits;
        auto const * pEnd = std::to_chars(digits.data(), digits.data() + digits.size(), nValue).ptr;
        if (!m_bShort)
        {
            for (auto n = pEnd - digits.data(); n < nDigits; ++n)
            {
                m_strText += static_cast<WCHAR>(cFill);
            }
        }
        Text({digits.data(), static_cast<std::size_t>(pEnd - digits.data())});
    }
    void Parts(std::string_view directives)
    {
        m_bShort = false;
        for (auto const c : directives)
        {
            if (c >= 'A')
            {
                Append(static_cast<WCHAR>(c));
            }
            else
            {
                m_strText += static_cast<WCHAR>(c);
            }
        }
    }
    void Zone(char const * pszDirective)
    {
        std::array<char, 64> text;
        Text({text.data(), std::strftime(text.data(), text.size(), pszDirective, &m_fields)});
    }

    void Append(WCHAR cDirective)
    {
        auto const nHour12 = m_fields.tm_hour % 12 == 0 ? 12 : m_fields.tm_hour % 12;
        auto const nYear = m_fields.tm_year + 1900;
        auto const strDay = DAYS[static_cast<std::size_t>(m_fields.tm_wday)];
        auto const strMonth = MONTHS[static_cast<std::size_t>(m_fields.tm_mon)];
        switch (cDirective)
        {
        case 'a':
            return Text(strDay.substr(0, 3));
        case 'A':
            return Text(strDay);
        case 'b':
        case 'h':
            return Text(strMonth.substr(0, 3));
        case 'B':
            return Text(strMonth);
        case 'c':
            return Parts("a b e H:M:S Y");
        case 'C':
            return Number(nYear / 100, 2);
        case 'd':
            return Number(m_fields.tm_mday, 2);
        case 'D':
        case 'x':
            return Parts("m/d/y");
        case 'e':
            return Number(m_fields.tm_mday, 2, ' ');
        case 'F':
            return Parts("Y-m-d");
        case 'H':
            return Number(m_fields.tm_hour, 2);
        case 'I':
            return Number(nHour12, 2);
        case 'j':
            return Number(m_fields.tm_yday + 1, 3);
        case 'm':
            return Number(m_fields.tm_mon + 1, 2);
        case 'M':
            return Number(m_fields.tm_min, 2);
        case 'n':
            return Text("\n");
        case 'p':
            return Text(m_fields.tm_hour < 12 ? "AM" : "PM");
        case 'r':
            return Parts("I:M:S p");
        case 'R':
            return Parts("H:M");
        case 'S':
            return Number(m_fields.tm_sec, 2);
        case 't':
            return Text("\t");
        case 'T':
        case 'X':
            return Parts("H:M:S");
        case 'u':
            return Number(m_fields.tm_wday == 0 ? 7 : m_fields.tm_wday, 1);
        case 'U':
            return Number((m_fields.tm_yday + 7 - m_fields.tm_wday) / 7, 2);
        case 'w':
            return Number(m_fields.tm_wday, 1);
        case 'W':
            return Number((m_fields.tm_yday + 7 - (m_fields.tm_wday + 6) % 7) / 7, 2);
        case 'y':
            return Number(nYear % 100, 2);
        case 'Y':
            return Number(nYear, 4);
        case 'z':
            return Zone("%z");
        case 'Z':
            return Zone("%Z");
        case '%':
            return Text("%");
        default:
            AfxThrowInvalidArgException();
        }
    }
};
} // namespace

CString CTimeSpan::Format(LPCTSTR pszFormat) const
{
    if (!pszFormat)
    {
        AfxThrowInvalidArgException();
    }
    CString strText;
    for (; *pszFormat; ++pszFormat)
    {
        if (*pszFormat != '%')
        {
            strText += *pszFormat;
            continue;
        }
        switch (*++pszFormat)
        {
        case 'D':
            strText.AppendFormat(_T("%I64d"), GetDays());
            break;
        case 'H':
            strText.AppendFormat(_T("%02d"), GetHours());
            break;
        case 'M':
            strText.AppendFormat(_T("%02d"), GetMinutes());
            break;
        case 'S':
            strText.AppendFormat(_T("%02d"), GetSeconds());
            break;
        case '%':
            strText += *pszFormat;
            break;
        default:
            AfxThrowInvalidArgException();
        }
    }
    return strText;
}

CTime::CTime(int nYear, int nMonth, int nDay, int nHour, int nMin, int nSec, int nDST)
{
    if (!Within(nYear, 1900, 3000) || !Within(nMonth, 1, 12) || !Within(nDay, 1, 31) || !Within(nHour, 0, 23) ||
        !Within(nMin, 0, 59) || !Within(nSec, 0, 59))
    {
        AfxThrowInvalidArgException();
    }
    std::tm fields{};
    fields.tm_year = nYear - 1900;
    fields.tm_mon = nMonth - 1;
    fields.tm_mday = nDay;
    fields.tm_hour = nHour;
    fields.tm_min = nMin;
    fields.tm_sec = nSec;
    fields.tm_isdst = nDST;
    m_nTime = std::mktime(&fields);
    if (m_nTime < 0)
    {
        AfxThrowInvalidArgException();
    }
}

CTime::CTime(SYSTEMTIME const & st, int nDST)
    : CTime(st.wYear < 1900 ? CTime() : CTime(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, nDST))
{
}

CTime::CTime(FILETIME const & ft, int)
{
    auto const nSeconds = ((static_cast<ULONGLONG>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime) / TICKS_PER_SECOND;
    if (nSeconds < SECONDS_1601_TO_1970)
    {
        AfxThrowInvalidArgException();
    }
    m_nTime = static_cast<LONGLONG>(nSeconds - SECONDS_1601_TO_1970);
}

CTime CTime::GetCurrentTime()
{
    return CTime(static_cast<LONGLONG>(std::time(nullptr)));
}

std::tm * CTime::GetLocalTm(std::tm * ptm) const
{
    auto const nTime = static_cast<std::time_t>(m_nTime);
    if (!ptm || m_nTime < 0 || nTime != m_nTime)
    {
        return nullptr;
    }
#if defined(_WIN32)
    return localtime_s(ptm, &nTime) == 0 ? ptm : nullptr;
#else
    return localtime_r(&nTime, ptm);
#endif
}

std::tm * CTime::GetGmtTm(std::tm * ptm) const
{
    auto const nTime = static_cast<std::time_t>(m_nTime);
    if (!ptm || m_nTime < 0 || nTime != m_nTime)
    {
        return nullptr;
    }
#if defined(_WIN32)
    return gmtime_s(ptm, &nTime) == 0 ? ptm : nullptr;
#else
    return gmtime_r(&nTime, ptm);
#endif
}

int CTime::GetYear() const
{
    std::tm fields;
    return GetLocalTm(&fields) ? fields.tm_year + 1900 : 0;
}

int CTime::GetMonth() const
{
    std::tm fields;
    return GetLocalTm(&fields) ? fields.tm_mon + 1 : 0;
}

int CTime::GetDay() const
{
    return LocalFields(*this).tm_mday;
}

int CTime::GetHour() const
{
    return LocalFields(*this).tm_hour;
}

int CTime::GetMinute() const
{
    return LocalFields(*this).tm_min;
}

int CTime::GetSecond() const
{
    return LocalFields(*this).tm_sec;
}

int CTime::GetDayOfWeek() const
{
    std::tm fields;
    return GetLocalTm(&fields) ? fields.tm_wday + 1 : 0;
}

bool CTime::GetAsSystemTime(SYSTEMTIME & st) const
{
    std::tm fields;
    if (!GetLocalTm(&fields))
    {
        return false;
    }
    st.wYear = static_cast<WORD>(fields.tm_year + 1900);
    st.wMonth = static_cast<WORD>(fields.tm_mon + 1);
    st.wDayOfWeek = static_cast<WORD>(fields.tm_wday);
    st.wDay = static_cast<WORD>(fields.tm_mday);
    st.wHour = static_cast<WORD>(fields.tm_hour);
    st.wMinute = static_cast<WORD>(fields.tm_min);
    st.wSecond = static_cast<WORD>(fields.tm_sec);
    st.wMilliseconds = 0;
    return true;
}

CString kvx::FormatTime(std::tm const & fields, LPCTSTR pszFormat)
{
    return CTimeFormatter(fields).Format(pszFormat);
}

CString CTime::Format(LPCTSTR pszFormat) const
{
    std::tm fields;
    return GetLocalTm(&fields) ? kvx::FormatTime(fields, pszFormat) : CString();
}

CString CTime::FormatGmt(LPCTSTR pszFormat) const
{
    std::tm fields;
    return GetGmtTm(&fields) ? kvx::FormatTime(fields, pszFormat) : CString();
}
