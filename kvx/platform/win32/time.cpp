#include "kvx/platform/win32/time.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/futex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace kvx::win32
{

namespace
{

constexpr std::int64_t TICKS_PER_S = 10'000'000;
constexpr std::int64_t TICKS_PER_MS = 10'000;
constexpr std::int64_t S_PER_DAY = 86'400;
constexpr std::int64_t S_PER_QUARTER = 900;
constexpr std::int64_t EPOCH_S = 11'644'473'600; // from 1601 to 1970

constexpr std::int64_t ToTicks(FILETIME const & time) noexcept
{
    return static_cast<std::int64_t>(std::uint64_t(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

constexpr FILETIME ToFileTime(std::int64_t nTicks) noexcept
{
    auto const nBits = static_cast<std::uint64_t>(nTicks);
    return {static_cast<DWORD>(nBits), static_cast<DWORD>(nBits >> 32)};
}

std::int64_t GetNow() noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return (now.tv_sec + EPOCH_S) * TICKS_PER_S + now.tv_nsec / 100;
}

/// Ticks since 1601, not negative.
SYSTEMTIME ToSystemTime(std::int64_t nTicks) noexcept
{
    std::int64_t const nSeconds = nTicks / TICKS_PER_S;
    std::int64_t const nDays = nSeconds / S_PER_DAY;
    auto const nOfDay = static_cast<std::int32_t>(nSeconds % S_PER_DAY);
    // Years are counted from March, so that the leap day is the last of its year: first by cycles of 400 years.
    std::int64_t const nShifted = nDays + 584'694; // days since 0000-03-01
    std::int64_t const nCycle = nShifted / 146'097;
    auto const nOfCycle = static_cast<std::int32_t>(nShifted % 146'097);
    std::int32_t const nYear = (nOfCycle - nOfCycle / 1460 + nOfCycle / 36'524 - nOfCycle / 146'096) / 365;
    std::int32_t const nOfYear = nOfCycle - (365 * nYear + nYear / 4 - nYear / 100);
    std::int32_t const nMonth = (5 * nOfYear + 2) / 153;
    std::int32_t const nDay = nOfYear - (153 * nMonth + 2) / 5 + 1;
    return {
        .wYear = static_cast<WORD>(nCycle * 400 + nYear + (nMonth >= 10 ? 1 : 0)),
        .wMonth = static_cast<WORD>(nMonth < 10 ? nMonth + 3 : nMonth - 9),
        .wDayOfWeek = static_cast<WORD>((nDays + 1) % 7), // 1601 began on a Monday
        .wDay = static_cast<WORD>(nDay),
        .wHour = static_cast<WORD>(nOfDay / 3600),
        .wMinute = static_cast<WORD>(nOfDay / 60 % 60),
        .wSecond = static_cast<WORD>(nOfDay % 60),
        .wMilliseconds = static_cast<WORD>(nTicks % TICKS_PER_S / TICKS_PER_MS),
    };
}

/// `quarter << 32 | offset in seconds`. Zones change their offset at quarter-hours of UTC only.
constinit std::atomic<std::uint64_t> g_localOffset{0};

/// Local time minus UTC at the given second since 1970.
std::int64_t GetLocalOffset(std::int64_t nSecond) noexcept
{
    auto const nQuarter = static_cast<std::uint64_t>(nSecond / S_PER_QUARTER);
    std::uint64_t const nCached = g_localOffset.load(std::memory_order_relaxed);
    if (nCached >> 32 == nQuarter) [[likely]]
    {
        return static_cast<std::int32_t>(nCached);
    }
    ::tzset();
    auto const time = static_cast<std::time_t>(nSecond);
    std::tm local{};
    ::localtime_r(&time, &local);
    g_localOffset.store(nQuarter << 32 | static_cast<std::uint32_t>(local.tm_gmtoff), std::memory_order_relaxed);
    return local.tm_gmtoff;
}

std::int64_t GetCurrentLocalOffset() noexcept
{
    return GetLocalOffset(GetNow() / TICKS_PER_S - EPOCH_S);
}

BOOL Fail() noexcept
{
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

BOOL Shift(FILETIME const * pFrom, FILETIME * pTo, std::int64_t nSeconds) noexcept
{
    std::int64_t nTicks = pFrom && pTo ? ToTicks(*pFrom) : -1;
    if (nTicks < 0 || __builtin_add_overflow(nTicks, nSeconds * TICKS_PER_S, &nTicks) || nTicks < 0)
    {
        return Fail();
    }
    *pTo = ToFileTime(nTicks);
    return TRUE;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

void GetSystemTime(SYSTEMTIME * pTime) noexcept
{
    *pTime = ToSystemTime(GetNow());
}

void GetLocalTime(SYSTEMTIME * pTime) noexcept
{
    // Whoever stamps lines of a log asks many times in one second: the calendar is worked out once for each.
    struct Recent
    {
        std::int64_t nSecond = -1;
        SYSTEMTIME time{};
    };
    static thread_local constinit Recent t_recent;
    std::int64_t const nNow = GetNow();
    std::int64_t const nSecond = nNow / TICKS_PER_S;
    if (nSecond != t_recent.nSecond)
    {
        t_recent = {nSecond, ToSystemTime((nSecond + GetLocalOffset(nSecond - EPOCH_S)) * TICKS_PER_S)};
    }
    *pTime = t_recent.time;
    pTime->wMilliseconds = static_cast<WORD>(nNow % TICKS_PER_S / TICKS_PER_MS);
}

void GetSystemTimeAsFileTime(FILETIME * pTime) noexcept
{
    *pTime = ToFileTime(GetNow());
}

timespec kvx::win32::ToHostTime(FILETIME const & time) noexcept
{
    std::int64_t const nTicks = ToTicks(time);
    return {nTicks / TICKS_PER_S - EPOCH_S, nTicks % TICKS_PER_S * 100};
}

BOOL SystemTimeToFileTime(SYSTEMTIME const * pTime, FILETIME * pFileTime) noexcept
{
    if (!pTime || !pFileTime || pTime->wYear < 1601 || pTime->wYear > 30'827 || pTime->wHour > 23 ||
        pTime->wMinute > 59 || pTime->wSecond > 59 || pTime->wMilliseconds > 999)
    {
        return Fail();
    }
    std::chrono::year_month_day const date(std::chrono::year(pTime->wYear), std::chrono::month(pTime->wMonth),
                                           std::chrono::day(pTime->wDay));
    if (!date.ok())
    {
        return Fail();
    }
    std::int64_t const nDays = std::chrono::sys_days(date).time_since_epoch().count();
    std::int64_t const nSeconds =
        nDays * S_PER_DAY + EPOCH_S + pTime->wHour * 3600 + pTime->wMinute * 60 + pTime->wSecond;
    *pFileTime = ToFileTime(nSeconds * TICKS_PER_S + pTime->wMilliseconds * TICKS_PER_MS);
    return TRUE;
}

BOOL FileTimeToSystemTime(FILETIME const * pFileTime, SYSTEMTIME * pTime) noexcept
{
    if (!pFileTime || !pTime || ToTicks(*pFileTime) < 0)
    {
        return Fail();
    }
    *pTime = ToSystemTime(ToTicks(*pFileTime));
    return TRUE;
}

BOOL FileTimeToDosDateTime(FILETIME const * pFileTime, LPWORD pDate, LPWORD pTime) noexcept
{
    constexpr std::int64_t STEP = 2 * TICKS_PER_S;
    if (!pFileTime || !pDate || !pTime || ToTicks(*pFileTime) < 0 || ToTicks(*pFileTime) > INT64_MAX - STEP)
    {
        return Fail();
    }
    SYSTEMTIME const time = ToSystemTime((ToTicks(*pFileTime) + STEP - 1) / STEP * STEP);
    if (time.wYear < 1980 || time.wYear > 2107)
    {
        return Fail();
    }
    *pDate = static_cast<WORD>((time.wYear - 1980) << 9 | time.wMonth << 5 | time.wDay);
    *pTime = static_cast<WORD>(time.wHour << 11 | time.wMinute << 5 | time.wSecond / 2);
    return TRUE;
}

BOOL DosDateTimeToFileTime(WORD nDate, WORD nTime, FILETIME * pFileTime) noexcept
{
    SYSTEMTIME time = {};
    time.wYear = static_cast<WORD>(1980 + (nDate >> 9));
    time.wMonth = nDate >> 5 & 15;
    time.wDay = nDate & 31;
    time.wHour = static_cast<WORD>(nTime >> 11);
    time.wMinute = nTime >> 5 & 63;
    time.wSecond = static_cast<WORD>((nTime & 31) * 2);
    return SystemTimeToFileTime(&time, pFileTime);
}

BOOL FileTimeToLocalFileTime(FILETIME const * pFileTime, FILETIME * pLocalTime) noexcept
{
    return Shift(pFileTime, pLocalTime, GetCurrentLocalOffset());
}

BOOL LocalFileTimeToFileTime(FILETIME const * pLocalTime, FILETIME * pFileTime) noexcept
{
    return Shift(pLocalTime, pFileTime, -GetCurrentLocalOffset());
}

ULONGLONG GetTickCount64() noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 1'000'000;
}

DWORD GetTickCount() noexcept
{
    return static_cast<DWORD>(GetTickCount64());
}

BOOL QueryPerformanceCounter(LARGE_INTEGER * pCount) noexcept
{
    pCount->QuadPart = static_cast<LONGLONG>(GetMonotonicTime());
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER * pFrequency) noexcept
{
    pFrequency->QuadPart = 1'000'000'000;
    return TRUE;
}
