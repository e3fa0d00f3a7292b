#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/Wide.h"

#include <cstdlib>
#include <ctime>
#include <string>

namespace
{

ULONGLONG ToNumber(FILETIME const & time)
{
    return ULONGLONG(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

TEST(Time, FileTimesGoThereAndBackOverAllYears)
{
    constexpr ULONGLONG DAY = 864'000'000'000;
    ULONGLONG nPrevious = 0;
    WORD wDayOfWeek = 1;
    for (ULONGLONG nDay = 0; nDay < 400 * 366; ++nDay)
    {
        ULONGLONG const nTicks = nDay * DAY + 863'999'990'000; // the last millisecond of each day
        FILETIME const time{static_cast<DWORD>(nTicks), static_cast<DWORD>(nTicks >> 32)};
        SYSTEMTIME fields{};
        FILETIME back{};
        ASSERT_TRUE(FileTimeToSystemTime(&time, &fields));
        ASSERT_TRUE(SystemTimeToFileTime(&fields, &back));
        ASSERT_EQ(ToNumber(back), nTicks);
        ASSERT_EQ(fields.wDayOfWeek, wDayOfWeek);
        wDayOfWeek = (wDayOfWeek + 1) % 7;
        ULONGLONG const nDate = fields.wYear * 10'000u + fields.wMonth * 100u + fields.wDay;
        ASSERT_GT(nDate, nPrevious);
        nPrevious = nDate;
    }
    SYSTEMTIME const last{30827, 12, 0, 31, 23, 59, 59, 999};
    FILETIME time{};
    SYSTEMTIME fields{};
    ASSERT_TRUE(SystemTimeToFileTime(&last, &time));
    ASSERT_TRUE(FileTimeToSystemTime(&time, &fields));
    EXPECT_EQ(fields.wYear, 30827);
    EXPECT_EQ(fields.wDay, 31);
    SYSTEMTIME const unixEpoch{1970, 1, 0, 1, 0, 0, 0, 0};
    ASSERT_TRUE(SystemTimeToFileTime(&unixEpoch, &time));
    EXPECT_EQ(ToNumber(time), 116'444'736'000'000'000u);
}

TEST(Time, FieldsOutOfRangeAreRefused)
{
    FILETIME time{};
    for (SYSTEMTIME const & fields : {SYSTEMTIME{1600, 12, 0, 31, 0, 0, 0, 0}, SYSTEMTIME{2023, 2, 0, 29, 0, 0, 0, 0},
                                      SYSTEMTIME{2023, 13, 0, 1, 0, 0, 0, 0}, SYSTEMTIME{2023, 1, 0, 0, 0, 0, 0, 0},
                                      SYSTEMTIME{2023, 1, 0, 1, 24, 0, 0, 0}, SYSTEMTIME{2023, 1, 0, 1, 0, 0, 60, 0},
                                      SYSTEMTIME{30828, 1, 0, 1, 0, 0, 0, 0}, SYSTEMTIME{2023, 1, 0, 1, 0, 0, 0, 1000}})
    {
        // ThereAreDaysThatAreNone, 2026-11-22
        if (host::IsWine() && (fields.wYear == 30828 || fields.wDay == 29))
        {
            continue;
        }
        SetLastError(0);
        EXPECT_TRUE(Fails(SystemTimeToFileTime(&fields, &time), ERROR_INVALID_PARAMETER))
            << fields.wYear << '-' << fields.wMonth;
    }
    FILETIME const tooLate{0, 0x80000000};
    SYSTEMTIME fields{};
    EXPECT_FALSE(FileTimeToSystemTime(&tooLate, &fields));
}

TEST(Time, LocalTimeIsThatOfTheZone)
{
    std::time_t const before = std::time(nullptr);
    // The fields of the zone, taken for those of the world's time.
    std::tm local = *std::localtime(&before);
    std::tm world = *std::gmtime(&before);
    local.tm_isdst = world.tm_isdst = 0;
    std::time_t const offset = std::mktime(&local) - std::mktime(&world);

    FILETIME now{}, there{}, back{};
    GetSystemTimeAsFileTime(&now);
    ASSERT_TRUE(FileTimeToLocalFileTime(&now, &there));
    ASSERT_TRUE(LocalFileTimeToFileTime(&there, &back));
    EXPECT_EQ(ToNumber(back), ToNumber(now));
    EXPECT_EQ(static_cast<LONGLONG>(ToNumber(there) - ToNumber(now)), offset * 10'000'000LL);
    SYSTEMTIME fields{};
    FILETIME again{};
    GetLocalTime(&fields);
    ASSERT_TRUE(SystemTimeToFileTime(&fields, &again));
    EXPECT_LT(ToNumber(again) / 10'000'000 - ToNumber(there) / 10'000'000, 3600u); // the same moment, or a little later
}

TEST(System, ComputerNameTellsTheRoomItNeeds)
{
    DWORD nSize = 0;
    EXPECT_TRUE(Fails(GetComputerNameW(nullptr, &nSize), ERROR_BUFFER_OVERFLOW));
    Wide strName(nSize, _T('?'));
    DWORD nLength = nSize;
    ASSERT_TRUE(GetComputerNameW(strName.data(), &nLength));
    EXPECT_TRUE(nLength > 0 && nLength == nSize - 1 && strName[nLength] == 0);
    EXPECT_FALSE(GetComputerNameW(strName.data(), &nLength));
}

} // namespace
