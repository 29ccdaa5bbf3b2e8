#include "hosted/ke/bug_check.h"

#include <ntifs.h>

#include <gtest/gtest.h>

namespace hosted
{
namespace
{
TEST(BugCheckDeath, NamesTheRuleAndTheDetail)
{
    EXPECT_DEATH(BugCheck("some-rule", "value %d of %s", 7, "nine"), "\\*\\*\\* Bug check: some-rule: value 7 of nine");
}

TEST(BugCheckDeath, LongDetailsAreCut)
{
    std::string text(5000, 'x');
    EXPECT_DEATH(BugCheck("some-rule", "%s", text.c_str()), "some-rule: x{767}[^x]");
}

TEST(BugCheckDeath, FastFail)
{
    EXPECT_DEATH(KeBugCheckOnFastFail(5), "fast-fail: code 5");
    EXPECT_DEATH(__fastfail(FAST_FAIL_CORRUPT_LIST_ENTRY), "fast-fail: code 3 .list corruption");
}
}
}
