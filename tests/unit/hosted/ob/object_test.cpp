#include "hosted/ob/object.h"

#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace hosted
{
namespace
{
int deletions;
KIRQL deletionLevel;

void NoteDeletion(void* body)
{
    ++deletions;
    deletionLevel = CurrentIrql();
    EXPECT_EQ(5, *static_cast<int*>(body));
}

const ObjectType CountedType = {"Counted", nullptr, NoteDeletion};
const ObjectType PlainType = {"Plain", nullptr, nullptr};

class Object : public testing::Test
{
protected:
    void SetUp() override
    {
        deletions = 0;
        ASSERT_EQ("", Described());
    }
    void TearDown() override { EXPECT_EQ("", Described()); }

    // Without what the system itself keeps.
    static std::string Described()
    {
        std::string text = DescribeLiveObjects();
        return text.find("Counted") == std::string::npos && text.find("Plain") == std::string::npos ? "" : text;
    }
};

TEST_F(Object, StartsZeroedAndAlignedWithOneReference)
{
    auto* body = static_cast<UCHAR*>(CreateObject(PlainType, 1000));
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(body) % 16);
    for (int i = 0; i < 1000; ++i)
    {
        ASSERT_EQ(0, body[i]);
    }
    EXPECT_EQ(1, ReferenceCount(body));
    EXPECT_EQ(&PlainType, &TypeOf(body));
    EXPECT_EQ(0, DereferenceObject(body));
}

TEST_F(Object, IsDeletedWithTheLastReference)
{
    auto* body = static_cast<int*>(CreateObject(CountedType, sizeof(int)));
    *body = 5;
    ReferenceObject(body);
    EXPECT_EQ(2, ReferenceCount(body));
    EXPECT_EQ(1, DereferenceObject(body));
    EXPECT_EQ(0, deletions);
    EXPECT_EQ(0, ObfDereferenceObject(body));
    EXPECT_EQ(1, deletions);
}

TEST_F(Object, DeletionWaitsForPassiveLevel)
{
    auto* body = static_cast<int*>(CreateObject(CountedType, sizeof(int)));
    *body = 5;
    void* plain = CreateObject(PlainType, 1);
    {
        RaisedIrql dispatch(DISPATCH_LEVEL);
        EXPECT_EQ(0, ObfDereferenceObject(body));
        EXPECT_EQ(0, deletions);
        EXPECT_EQ(0, ObfDereferenceObject(plain));
    }
    EXPECT_EQ(1, deletions);
    EXPECT_EQ(PASSIVE_LEVEL, deletionLevel);
}

TEST_F(Object, LiveOnesAreDescribed)
{
    void* first = CreateObject(PlainType, 1);
    void* second = CreateObject(PlainType, 1);
    auto* third = static_cast<int*>(CreateObject(CountedType, sizeof(int)));
    *third = 5;
    EXPECT_NE(std::string::npos, DescribeLiveObjects().find("Counted x1, "));
    EXPECT_NE(std::string::npos, DescribeLiveObjects().find("Plain x2"));
    DereferenceObject(first);
    DereferenceObject(second);
    DereferenceObject(third);
}

TEST_F(Object, ReferencesFromManyThreads)
{
    auto* body = static_cast<int*>(CreateObject(CountedType, sizeof(int)));
    *body = 5;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        ReferenceObject(body);
        threads.emplace_back(
            [body]
            {
                for (int j = 0; j < 500; ++j)
                {
                    ReferenceObject(body);
                    DereferenceObject(body);
                }
                DereferenceObject(body);
            });
    }
    DereferenceObject(body);
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(1, deletions);
}

TEST_F(Object, StaleReferencesDeath)
{
    void* body = CreateObject(PlainType, 16);
    EXPECT_DEATH(ReferenceObject(static_cast<UCHAR*>(body) + 16), "object-not-live");
    DereferenceObject(body);
    EXPECT_DEATH(DereferenceObject(body), "object-not-live");
    EXPECT_DEATH(ReferenceObject(body), "object-not-live");
    EXPECT_DEATH(ReferenceCount(body), "object-not-live");
    EXPECT_DEATH(TypeOf(nullptr), "object-not-live");
    EXPECT_DEATH(DereferenceObject(reinterpret_cast<void*>(8)), "object-not-live");
}

TEST_F(Object, OverDereferencedWhileDeletionWaitsDeath)
{
    auto* body = static_cast<int*>(CreateObject(CountedType, sizeof(int)));
    *body = 5;
    RaisedIrql apc(APC_LEVEL);
    DereferenceObject(body);
    EXPECT_DEATH(DereferenceObject(body), "object-over-dereferenced: the Counted");
    EXPECT_DEATH(ReferenceObject(body), "object-not-live: the Counted at .* is being deleted");
}

TEST_F(Object, LevelDeath)
{
    void* body = CreateObject(PlainType, 16);
    EXPECT_DEATH(
        {
            RaisedIrql high(DISPATCH_LEVEL + 1);
            ObfDereferenceObject(body);
        },
        "irql-too-high: ObfDereferenceObject");
    DereferenceObject(body);
}
}
}
