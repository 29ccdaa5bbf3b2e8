#include "hosted/ke/failure_injection.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace hosted
{
namespace
{
class FailureInjection : public testing::Test
{
protected:
    void SetUp() override { ResetFailures(); }
    void TearDown() override { ResetFailures(); }

    std::string Calls(const std::vector<const char*>& routines)
    {
        std::string outcome;
        for (const char* routine : routines)
        {
            outcome += InjectFailure(routine) ? 'F' : '.';
        }
        return outcome;
    }
};

TEST_F(FailureInjection, NothingFailsUnasked)
{
    EXPECT_EQ("...", Calls({"A", "B", "A"}));
    EXPECT_EQ(3u, FallibleCalls());
    EXPECT_EQ(0u, InjectedFailures());
}

TEST_F(FailureInjection, TheNthCallOnly)
{
    FailNthCall(2);
    EXPECT_EQ(".F..", Calls({"A", "B", "A", "B"}));
    EXPECT_EQ(1u, InjectedFailures());
}

TEST_F(FailureInjection, NumbersCountFromTheReset)
{
    Calls({"A", "A"});
    FailNthCall(3);
    EXPECT_EQ("F.", Calls({"A", "A"}));
}

TEST_F(FailureInjection, EveryCallFromTheNth)
{
    FailFromCall(2);
    EXPECT_EQ(".FFF", Calls({"A", "B", "A", "B"}));
    EXPECT_EQ(3u, InjectedFailures());
}

TEST_F(FailureInjection, ByRoutine)
{
    FailRoutine("B");
    EXPECT_EQ(".F..", Calls({"A", "B", "A", "B"}));
}

TEST_F(FailureInjection, ByRoutineAndNumber)
{
    FailRoutine("B", 2);
    EXPECT_EQ("...F.", Calls({"A", "B", "A", "B", "B"}));
}

TEST_F(FailureInjection, ByRoutineFromANumberOn)
{
    FailRoutine("B", 2, true);
    EXPECT_EQ("..FF.F", Calls({"B", "A", "B", "B", "A", "B"}));
}

TEST_F(FailureInjection, EachSettingReplacesTheOneBefore)
{
    FailRoutine("A", 1, true);
    FailNthCall(2);
    EXPECT_EQ(".F.", Calls({"A", "B", "A"}));
    ResetFailures();
    EXPECT_EQ("..", Calls({"A", "A"}));
    EXPECT_EQ(2u, FallibleCalls());
}

TEST_F(FailureInjection, CountsOverAllThreads)
{
    FailNthCall(250);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            []
            {
                for (int j = 0; j < 100; ++j)
                {
                    InjectFailure("A");
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(400u, FallibleCalls());
    EXPECT_EQ(1u, InjectedFailures());
}
}
}
