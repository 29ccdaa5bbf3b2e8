// Times as calendar dates.
#include "hosted/ke/bug_check.h"

#include <ntifs.h>

namespace hosted
{
namespace
{
constexpr LONGLONG UnitsPerMillisecond = 10000;
constexpr LONGLONG MillisecondsPerDay = 24LL * 60 * 60 * 1000;
constexpr LONGLONG FirstYear = 1601;
constexpr LONGLONG MondayWeekday = 1; // of 1601-01-01

// 1601 begins a cycle of 400 years, whose first 300 lack a leap day at the end of each century.
constexpr LONGLONG DaysPerYear = 365;
constexpr LONGLONG DaysPerFourYears = 4 * DaysPerYear + 1;
constexpr LONGLONG DaysPerCentury = 25 * DaysPerFourYears - 1;
constexpr LONGLONG DaysPerCycle = 4 * DaysPerCentury + 1;

// Takes as many whole periods as fit, at most `most`, out of the days.
LONGLONG TakePeriods(LONGLONG* days, LONGLONG period, LONGLONG most)
{
    LONGLONG count = *days / period;
    count = count < most ? count : most;
    *days -= count * period;
    return count;
}

bool IsLeapYear(LONGLONG year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

LONGLONG DaysInMonth(LONGLONG year, int month)
{
    constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return lengths[month - 1] + (month == 2 && IsLeapYear(year) ? 1 : 0);
}

void SetDate(LONGLONG days, TIME_FIELDS* fields)
{
    fields->Weekday = static_cast<CSHORT>((days + MondayWeekday) % 7);
    LONGLONG year = FirstYear + 400 * (days / DaysPerCycle);
    days %= DaysPerCycle;
    year += 100 * TakePeriods(&days, DaysPerCentury, 3);
    year += 4 * TakePeriods(&days, DaysPerFourYears, 24);
    year += TakePeriods(&days, DaysPerYear, 3);
    int month = 1;
    while (days >= DaysInMonth(year, month))
    {
        days -= DaysInMonth(year, month++);
    }
    fields->Year = static_cast<CSHORT>(year);
    fields->Month = static_cast<CSHORT>(month);
    fields->Day = static_cast<CSHORT>(days + 1);
}
}
}

extern "C" void NTAPI RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields)
{
    using namespace hosted;
    if (Time->QuadPart < 0)
    {
        BugCheck("time-negative", "RtlTimeToTimeFields of %lld, which is an interval and no date", Time->QuadPart);
    }
    const LONGLONG milliseconds = Time->QuadPart / UnitsPerMillisecond;
    const LONGLONG ofDay = milliseconds % MillisecondsPerDay;
    SetDate(milliseconds / MillisecondsPerDay, TimeFields);
    TimeFields->Hour = static_cast<CSHORT>(ofDay / 3600000);
    TimeFields->Minute = static_cast<CSHORT>(ofDay / 60000 % 60);
    TimeFields->Second = static_cast<CSHORT>(ofDay / 1000 % 60);
    TimeFields->Milliseconds = static_cast<CSHORT>(ofDay % 1000);
}
