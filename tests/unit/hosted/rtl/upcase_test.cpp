#include "hosted/rtl/upcase.h"

#include "hosted/ke/irql.h"

#include <gtest/gtest.h>
#include <unicode/uchar.h>

namespace hosted
{
namespace
{
unsigned Up(unsigned character)
{
    return static_cast<USHORT>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(character)));
}

TEST(Upcase, BasicLatin)
{
    for (unsigned character = 0; character < 0x80; ++character)
    {
        bool letter = character >= 'a' && character <= 'z';
        EXPECT_EQ(letter ? character - 32 : character, Up(character));
    }
}

TEST(Upcase, KnownPairs)
{
    EXPECT_EQ(0xC9u, Up(0xE9));
    EXPECT_EQ(0xF7u, Up(0xF7)) << "division sign";
    EXPECT_EQ(0x178u, Up(0xFF));
    EXPECT_EQ(0x1C4u, Up(0x1C6));
    EXPECT_EQ(0x3A3u, Up(0x3C3));
    EXPECT_EQ(0x3A3u, Up(0x3C2)) << "final sigma";
    EXPECT_EQ(0x416u, Up(0x436));
    EXPECT_EQ(0x531u, Up(0x561));
    EXPECT_EQ(0x1E00u, Up(0x1E01));
    EXPECT_EQ(0x1FBCu, Up(0x1FB3));
    EXPECT_EQ(0x2160u, Up(0x2170));
    EXPECT_EQ(0x24B6u, Up(0x24D0));
    EXPECT_EQ(0xFF21u, Up(0xFF41));
}

TEST(Upcase, WhatWindowsLeavesAlone)
{
    // Dotless i, long s, micro sign, sharp s (both), title case digraphs, Greek symbols, long s with dot.
    for (unsigned character :
        {0x131, 0x17F, 0xB5, 0xDF, 0x1E9E, 0x1C5, 0x1C8, 0x1CB, 0x1F2, 0x3D0, 0x3D1, 0x3F5, 0x345, 0x1E9B, 0x1FBE})
    {
        EXPECT_EQ(character, Up(character)) << std::hex << character;
    }
    // Newer than the table.
    EXPECT_EQ(0x10D0u, Up(0x10D0));
    EXPECT_EQ(0x13F8u, Up(0x13F8));
    // Surrogates: no pair is ever mapped.
    for (unsigned character = 0xD800; character < 0xE000; ++character)
    {
        ASSERT_EQ(character, Up(character));
    }
}

bool InUnicode51(unsigned character)
{
    UVersionInfo version;
    u_charAge(static_cast<UChar32>(character), version);
    return version[0] != 0 && (version[0] < 5 || (version[0] == 5 && version[1] <= 1));
}

TEST(Upcase, AgreesWithUnicodeWhereTheyShould)
{
    int mapped = 0;
    for (unsigned character = 0; character < 0x10000; ++character)
    {
        auto unicode = static_cast<unsigned>(u_toupper(static_cast<UChar32>(character)));
        bool leadsBack = static_cast<unsigned>(u_tolower(static_cast<UChar32>(unicode))) == character;
        bool takenOver =
            unicode < 0x10000 && InUnicode51(character) && InUnicode51(unicode) && (leadsBack || character == 0x3C2);
        ASSERT_EQ(takenOver ? unicode : character, Up(character)) << std::hex << character;
        mapped += Up(character) != character ? 1 : 0;
    }
    EXPECT_GT(mapped, 800);
}

TEST(Upcase, IsIdempotent)
{
    for (unsigned character = 0; character < 0x10000; ++character)
    {
        ASSERT_EQ(Up(character), Up(Up(character))) << std::hex << character;
    }
}

TEST(Upcase, LevelDeath)
{
    RaisedIrql apc(APC_LEVEL);
    EXPECT_EQ(0x41u, Up(0x61));
    RaisedIrql dispatch(DISPATCH_LEVEL);
    EXPECT_EQ(L'A', UpcaseCharacter(L'a'));
    EXPECT_DEATH(Up(0x61), "irql-too-high: RtlUpcaseUnicodeChar");
}

TEST(KernelToUpper, FoldsBasicLatinOnly)
{
    for (unsigned character = 0; character < 0x10000; ++character)
    {
        bool letter = character >= 'a' && character <= 'z';
        ASSERT_EQ(letter ? character - 32 : character, KernelToUpper(static_cast<unsigned short>(character)));
    }
}
}
}
