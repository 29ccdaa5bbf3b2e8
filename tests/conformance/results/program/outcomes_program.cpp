// A test program in which every outcome of a test happens. Only the tests of the counting run it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

TEST(Passing, First)
{
    EXPECT_EQ(std::string("one").size(), 3u);
}

TEST(Passing, Second)
{
    EXPECT_EQ(std::string("seven").size(), 5u);
}

TEST(Passing, DISABLED_NotRun)
{
    FAIL();
}

TEST(DISABLED_Suite, NotRun)
{
    FAIL();
}

TEST(Failing, Differs)
{
    EXPECT_EQ(std::string("<a> & 'b'"), "\"c\"") << "said\nin two lines";
}

TEST(Failing, Throws)
{
    throw std::runtime_error("thrown");
}

TEST(Failing, Passes)
{
    EXPECT_TRUE(std::string().empty());
}

TEST(Skipping, WithAReason)
{
    GTEST_SKIP() << "this machine has none";
}

class Each : public testing::TestWithParam<int>
{
};

TEST_P(Each, IsPositive)
{
    EXPECT_GT(GetParam(), 0);
}

INSTANTIATE_TEST_SUITE_P(Numbers, Each, testing::Values(-1, 1, 2));

TEST(Crashing, EndsTheProgram)
{
    std::abort();
}

TEST(Crashing, ComesBehind) {}

// What is left over is seen only when the program ends, with a result file that knows of no failure.
TEST(Leaking, LeavesMemory)
{
    static volatile unsigned long hidden;
    hidden = ~reinterpret_cast<unsigned long>(std::malloc(100));
    EXPECT_NE(hidden, 0u);
}
