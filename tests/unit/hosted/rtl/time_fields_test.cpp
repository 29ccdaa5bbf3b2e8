// Dates out of times.
#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>

namespace hosted
{
namespace
{
constexpr LONGLONG Second = 10000000;
constexpr LONGLONG SecondsTo1970 = 11644473600;

TIME_FIELDS FieldsOf(LONGLONG time)
{
    LARGE_INTEGER value;
    value.QuadPart = time;
    TIME_FIELDS fields;
    __builtin_memset(&fields, 0x5a, sizeof(fields));
    RtlTimeToTimeFields(&value, &fields);
    return fields;
}

std::string Text(const TIME_FIELDS& fields)
{
    char text[64];
    snprintf(text, sizeof(text), "%d-%02d-%02d %02d:%02d:%02d.%03d %d", fields.Year, fields.Month, fields.Day,
        fields.Hour, fields.Minute, fields.Second, fields.Milliseconds, fields.Weekday);
    return text;
}

TEST(TimeFields, BeginsWith1601)
{
    EXPECT_EQ("1601-01-01 00:00:00.000 1", Text(FieldsOf(0)));
    EXPECT_EQ("1601-01-01 00:00:00.001 1", Text(FieldsOf(19999)));
}

TEST(TimeFields, KnowsLeapDaysAndTheCenturiesWithoutOne)
{
    constexpr LONGLONG Day = 24 * 60 * 60 * Second;
    EXPECT_EQ("2000-02-29 00:00:00.000 2", Text(FieldsOf((951782400 + SecondsTo1970) * Second)));
    EXPECT_EQ("2024-02-29 23:59:59.999 4", Text(FieldsOf((1709164800 + SecondsTo1970) * Second + Day - 1)));
    EXPECT_EQ("2024-12-31 00:00:00.000 2", Text(FieldsOf((1735603200 + SecondsTo1970) * Second)));
    EXPECT_EQ("1900-02-28 00:00:00.000 3", Text(FieldsOf((-2203977600 + SecondsTo1970) * Second)));
    EXPECT_EQ("1900-03-01 00:00:00.000 4", Text(FieldsOf((-2203891200 + SecondsTo1970) * Second)));
    EXPECT_EQ("2000-12-31 00:00:00.000 0", Text(FieldsOf((978220800 + SecondsTo1970) * Second)));
    EXPECT_EQ("2001-01-01 00:00:00.000 1", Text(FieldsOf((978307200 + SecondsTo1970) * Second)));
}

TEST(TimeFields, AgreesWithTheCalendarOfLinux)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937_64 random(seed);
    // To the end of the last year that the 64 bits reach.
    std::uniform_int_distribution<LONGLONG> seconds(-SecondsTo1970, 910692730085 - 2);
    for (int round = 0; round < 20000; ++round)
    {
        const time_t at = seconds(random);
        tm expected{};
        ASSERT_NE(nullptr, gmtime_r(&at, &expected));
        const TIME_FIELDS fields = FieldsOf((at + SecondsTo1970) * Second + 1230000);
        const TIME_FIELDS wanted = {static_cast<CSHORT>(expected.tm_year + 1900),
            static_cast<CSHORT>(expected.tm_mon + 1), static_cast<CSHORT>(expected.tm_mday),
            static_cast<CSHORT>(expected.tm_hour), static_cast<CSHORT>(expected.tm_min),
            static_cast<CSHORT>(expected.tm_sec), 123, static_cast<CSHORT>(expected.tm_wday)};
        ASSERT_EQ(Text(wanted), Text(fields)) << at;
    }
}

TEST(TimeFields, CallableAtAnyLevel)
{
    const RaisedIrql raised(HIGH_LEVEL);
    EXPECT_EQ("1601-01-01 00:00:01.000 1", Text(FieldsOf(Second)));
}

TEST(TimeFields, AnIntervalIsNoDate)
{
    EXPECT_DEATH(FieldsOf(-1), "time-negative");
}
}
}
