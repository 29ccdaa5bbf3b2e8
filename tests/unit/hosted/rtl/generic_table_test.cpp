#include "hosted/ke/failure_injection.h"

#include <ntifs.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace hosted
{
namespace
{
struct Record
{
    ULONG Key;
    ULONG Value;
};

// Memory and calls as the table's user sees them.
struct Owner
{
    std::set<void*> Live;
    std::vector<ULONG> Sizes;
    ULONG Compares = 0;
    bool Exhausted = false;
};

Owner& OwnerOf(PRTL_GENERIC_TABLE table)
{
    return *static_cast<Owner*>(table->TableContext);
}

RTL_GENERIC_COMPARE_RESULTS NTAPI Compare(PRTL_GENERIC_TABLE table, PVOID first, PVOID second)
{
    ++OwnerOf(table).Compares;
    ULONG left = static_cast<Record*>(first)->Key;
    ULONG right = static_cast<Record*>(second)->Key;
    return left < right ? GenericLessThan : left > right ? GenericGreaterThan : GenericEqual;
}

PVOID NTAPI Allocate(PRTL_GENERIC_TABLE table, ULONG bytes)
{
    Owner& owner = OwnerOf(table);
    if (owner.Exhausted)
    {
        return nullptr;
    }
    void* memory = malloc(bytes);
    owner.Live.insert(memory);
    owner.Sizes.push_back(bytes);
    return memory;
}

void NTAPI Free(PRTL_GENERIC_TABLE table, PVOID buffer)
{
    EXPECT_EQ(1u, OwnerOf(table).Live.erase(buffer));
    free(buffer);
}

class GenericTable : public testing::Test
{
protected:
    GenericTable() { RtlInitializeGenericTable(&table_, Compare, Allocate, Free, &owner_); }

    ~GenericTable() override
    {
        ResetFailures();
        while (auto* record = Get(0))
        {
            Record key = *record;
            EXPECT_TRUE(RtlDeleteElementGenericTable(&table_, &key));
        }
        EXPECT_TRUE(owner_.Live.empty());
    }

    Record* Insert(ULONG key, ULONG value, BOOLEAN* isNew = nullptr)
    {
        Record record = {key, value};
        return static_cast<Record*>(RtlInsertElementGenericTable(&table_, &record, sizeof(record), isNew));
    }
    Record* Lookup(ULONG key)
    {
        Record record = {key, 0};
        return static_cast<Record*>(RtlLookupElementGenericTable(&table_, &record));
    }
    bool Delete(ULONG key)
    {
        Record record = {key, 0};
        return RtlDeleteElementGenericTable(&table_, &record);
    }
    Record* Get(ULONG index) { return static_cast<Record*>(RtlGetElementGenericTable(&table_, index)); }

    // Order and back links of the whole tree; returns the number of nodes.
    ULONG Check(RTL_SPLAY_LINKS* node, RTL_SPLAY_LINKS* parent, const ULONG* above, const ULONG* below)
    {
        if (node == nullptr)
        {
            return 0;
        }
        EXPECT_EQ(parent, node->Parent);
        ULONG key = reinterpret_cast<Record*>(reinterpret_cast<UCHAR*>(node) + 40)->Key;
        EXPECT_TRUE(above == nullptr || key > *above);
        EXPECT_TRUE(below == nullptr || key < *below);
        return 1 + Check(node->LeftChild, node, above, &key) + Check(node->RightChild, node, &key, below);
    }
    void CheckAll()
    {
        EXPECT_EQ(table_.NumberGenericTableElements, Check(table_.TableRoot, table_.TableRoot, nullptr, nullptr));
    }

    Owner owner_;
    RTL_GENERIC_TABLE table_;
};

TEST_F(GenericTable, StartsEmpty)
{
    EXPECT_EQ(0u, RtlNumberGenericTableElements(&table_));
    EXPECT_EQ(nullptr, table_.TableRoot);
    EXPECT_EQ(&owner_, table_.TableContext);
    EXPECT_EQ(nullptr, Lookup(1));
    EXPECT_EQ(nullptr, Get(0));
    EXPECT_FALSE(Delete(1));
}

TEST_F(GenericTable, CopiesTheRecordIntoTheCallersMemory)
{
    BOOLEAN isNew = FALSE;
    Record* record = Insert(5, 50, &isNew);
    ASSERT_NE(nullptr, record);
    EXPECT_TRUE(isNew);
    EXPECT_EQ(5u, record->Key);
    EXPECT_EQ(50u, record->Value);
    EXPECT_EQ((std::vector<ULONG>{40 + sizeof(Record)}), owner_.Sizes);
    EXPECT_EQ(reinterpret_cast<UCHAR*>(*owner_.Live.begin()) + 40, reinterpret_cast<UCHAR*>(record));
    EXPECT_EQ(record, Lookup(5));
    EXPECT_EQ(record, Get(0));
}

TEST_F(GenericTable, KeepsTheFirstOfEqualRecords)
{
    Record* first = Insert(5, 50);
    BOOLEAN isNew = TRUE;
    EXPECT_EQ(first, Insert(5, 99, &isNew));
    EXPECT_FALSE(isNew);
    EXPECT_EQ(50u, first->Value);
    EXPECT_EQ(1u, RtlNumberGenericTableElements(&table_));
}

TEST_F(GenericTable, ElementsStandInTheOrderOfInsertion)
{
    for (ULONG key : {30u, 10u, 20u, 40u})
    {
        Insert(key, key);
    }
    for (ULONG index : {0u, 3u, 1u, 2u, 2u, 0u})
    {
        EXPECT_EQ((std::vector<ULONG>{30, 10, 20, 40})[index], Get(index)->Key);
    }
    EXPECT_EQ(nullptr, Get(4));
    EXPECT_EQ(nullptr, Get(0xFFFFFFFF));
    EXPECT_TRUE(Delete(10));
    EXPECT_EQ(30u, Get(0)->Key);
    EXPECT_EQ(20u, Get(1)->Key);
    EXPECT_EQ(nullptr, Get(3));
    Insert(10, 10);
    EXPECT_EQ(10u, Get(3)->Key);
}

TEST_F(GenericTable, NoMemory)
{
    owner_.Exhausted = true;
    BOOLEAN isNew = TRUE;
    EXPECT_EQ(nullptr, Insert(1, 1, &isNew));
    EXPECT_FALSE(isNew);
    EXPECT_EQ(0u, RtlNumberGenericTableElements(&table_));
    owner_.Exhausted = false;
    FailRoutine("RtlInsertElementGenericTable");
    isNew = TRUE;
    EXPECT_EQ(nullptr, Insert(1, 1, &isNew));
    EXPECT_FALSE(isNew);
    EXPECT_NE(nullptr, Insert(1, 1));
}

TEST_F(GenericTable, AgreesWithAMapUnderRandomUse)
{
    std::mt19937 random(20240101);
    std::map<ULONG, ULONG> model;
    std::vector<ULONG> order;
    for (int i = 0; i < 5000; ++i)
    {
        ULONG key = random() % 200;
        switch (random() % 4)
        {
        case 0:
        case 1:
            if (model.try_emplace(key, i).second)
            {
                order.push_back(key);
            }
            Insert(key, static_cast<ULONG>(i));
            break;
        case 2:
            ASSERT_EQ(model.erase(key) == 1, Delete(key));
            std::erase(order, key);
            break;
        default:
            Record* found = Lookup(key);
            ASSERT_EQ(model.contains(key), found != nullptr);
            ASSERT_TRUE(found == nullptr || found->Value == model[key]);
            break;
        }
        ASSERT_EQ(model.size(), RtlNumberGenericTableElements(&table_));
        if (!order.empty())
        {
            ULONG index = random() % order.size();
            ASSERT_EQ(order[index], Get(index)->Key);
        }
    }
    CheckAll();
}

TEST_F(GenericTable, StaysShallowUnderAscendingKeys)
{
    constexpr ULONG Count = 4096;
    for (ULONG key = 0; key < Count; ++key)
    {
        Insert(key, key);
    }
    CheckAll();
    owner_.Compares = 0;
    std::mt19937 random(7);
    for (int i = 0; i < 10000; ++i)
    {
        ASSERT_NE(nullptr, Lookup(random() % Count));
    }
    // Thrice the depth of a balanced tree; a list would need two thousand on average.
    EXPECT_LT(owner_.Compares / 10000, 36u);
}

TEST(GenericTableDeath, Rules)
{
    RTL_GENERIC_TABLE table = {};
    EXPECT_DEATH(RtlInitializeGenericTable(&table, nullptr, Allocate, Free, nullptr), "null-pointer");
    EXPECT_DEATH(RtlInitializeGenericTable(&table, Compare, nullptr, Free, nullptr), "null-pointer");
    EXPECT_DEATH(RtlInitializeGenericTable(&table, Compare, Allocate, nullptr, nullptr), "null-pointer");
    EXPECT_DEATH(RtlNumberGenericTableElements(&table), "table-not-initialised: RtlNumberGenericTableElements");
    EXPECT_DEATH(RtlGetElementGenericTable(&table, 0), "table-not-initialised");
    EXPECT_DEATH(RtlLookupElementGenericTable(nullptr, nullptr), "table-not-initialised");
    EXPECT_DEATH(RtlDeleteElementGenericTable(&table, nullptr), "table-not-initialised");
    EXPECT_DEATH(RtlInsertElementGenericTable(&table, nullptr, 0, nullptr), "table-not-initialised");
}
}
}
