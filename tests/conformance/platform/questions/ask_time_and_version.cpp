// Calendar dates, local time, version.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
constexpr LONGLONG Second = 10000000;
constexpr LONGLONG Day = 24 * 60 * 60 * Second;

void AskFields(Answers& answers, LONGLONG time)
{
    LARGE_INTEGER when;
    when.QuadPart = time;
    TIME_FIELDS fields;
    Fill(&fields, sizeof(fields));
    RtlTimeToTimeFields(&when, &fields);
    answers.Line("RtlTimeToTimeFields ", time, ": ", fields.Year, "-", fields.Month, "-", fields.Day, " ", fields.Hour,
        ":", fields.Minute, ":", fields.Second, ".", fields.Milliseconds, " weekday ", fields.Weekday);
}

void AskLocal(Answers& answers, LONGLONG time)
{
    LARGE_INTEGER system;
    system.QuadPart = time;
    LARGE_INTEGER local = {};
    ExSystemTimeToLocalTime(&system, &local);
    answers.Line("ExSystemTimeToLocalTime ", time, ": ", local.QuadPart);
}
}

void AskTime(Answers& answers)
{
    for (LONGLONG time : {0LL, 1LL, 9999LL, 10000LL, Second - 1, Second, Day - 1, Day, 58 * Day, 59 * Day})
    {
        AskFields(answers, time);
    }
    // The ends of February, in years that are leap years and that are not, of each kind: 1604, 1700, 1900, 2000, 2100.
    for (LONGLONG year : {1604, 1700, 1800, 1900, 2000, 2018, 2020, 2100, 2400, 9999, 10001, 30827})
    {
        const LONGLONG before = year - 1601;
        const LONGLONG first = before * 365 + before / 4 - before / 100 + before / 400;
        for (LONGLONG day : {0, 58, 59, 60, 364, 365})
        {
            AskFields(answers, (first + day) * Day);
            AskFields(answers, (first + day) * Day + Day - 1);
        }
    }
    // Now and then in four hundred years.
    for (LONGLONG day = 100000; day < 250000; day += 97)
    {
        AskFields(answers, day * Day + 12345678 * (day % 7) + 5);
    }
    AskFields(answers, 0x7FFFFFFFFFFFFFFFLL); // the last that is no interval
    for (LONGLONG time : {0LL, 130000000000000000LL, 132223104000000000LL, 132400000000000000LL, -1LL})
    {
        AskLocal(answers, time);
    }
}

void AskVersion(Answers& answers)
{
    struct
    {
        RTL_OSVERSIONINFOW Common;
        USHORT ServicePackMajor;
        USHORT ServicePackMinor;
        USHORT SuiteMask;
        UCHAR ProductType;
        UCHAR Reserved;
    } version;
    for (ULONG bytes : {static_cast<ULONG>(sizeof(RTL_OSVERSIONINFOW)), static_cast<ULONG>(sizeof(version))})
    {
        Fill(&version, sizeof(version));
        version.Common.dwOSVersionInfoSize = bytes;
        const NTSTATUS status = RtlGetVersion(&version.Common);
        SIZE_T length = 0;
        while (length < 128 && version.Common.szCSDVersion[length] != 0)
        {
            ++length;
        }
        answers.Line("RtlGetVersion ", bytes, " bytes: ", Status{status}, " size ", version.Common.dwOSVersionInfoSize);
        answers.Line("RtlGetVersion ", bytes, " bytes version: ", version.Common.dwMajorVersion, ".",
            version.Common.dwMinorVersion, ".", version.Common.dwBuildNumber);
        answers.Line("RtlGetVersion ", bytes, " bytes platform: ", version.Common.dwPlatformId);
        answers.Line("RtlGetVersion ", bytes, " bytes service pack: ", Text{version.Common.szCSDVersion, length});
        answers.Line("RtlGetVersion ", bytes, " bytes service pack numbers: ", Hex{version.ServicePackMajor}, " ",
            Hex{version.ServicePackMinor});
        answers.Line("RtlGetVersion ", bytes, " bytes suite: ", Hex{version.SuiteMask});
        answers.Line("RtlGetVersion ", bytes, " bytes product: ", Hex{version.ProductType});
    }
}
}
