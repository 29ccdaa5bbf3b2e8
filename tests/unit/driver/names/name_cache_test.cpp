// The bounded map of path names.

#include "driver/names/name_cache.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

#include <thread>

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

class NameCache : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        ASSERT_EQ(CTInitialize(&Table), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        ResetFailures();
        EXPECT_EQ(CTFinalize(&Table), STATUS_SUCCESS);
    }

    NTSTATUS Insert(WideView key, WideView element)
    {
        const UNICODE_STRING keyString = Counted(key);
        const UNICODE_STRING elementString = Counted(element);
        return CTInsertElement(&Table, &keyString, &elementString, 0);
    }
    NTSTATUS Lookup(WideView key, std::string* element = nullptr)
    {
        const UNICODE_STRING keyString = Counted(key);
        CountedString found;
        const NTSTATUS status = CTLookupElement(&Table, &keyString, &found, 0);
        if (element != nullptr)
        {
            *element = Narrow(View(found.Get()));
        }
        return status;
    }
    ULONG Count()
    {
        ULONG count = 0xffffffff;
        EXPECT_EQ(CTGetElementCount(&Table, &count), STATUS_SUCCESS);
        return count;
    }

    Machine Computer;
    CacheTable Table;
};

TEST_F(NameCache, FindsWhatWasInserted)
{
    EXPECT_EQ(Lookup(L"C:\\PROGRA~1"), STATUS_NOT_FOUND);
    EXPECT_EQ(Insert(L"C:\\PROGRA~1", L"C:\\Program Files"), STATUS_SUCCESS);
    std::string element;
    EXPECT_EQ(Lookup(L"C:\\PROGRA~1", &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "C:\\Program Files");
    EXPECT_EQ(Count(), 1u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(NameCache, ElementIsCopiedWithAZeroedTerminatorBehindIt)
{
    ASSERT_EQ(Insert(L"k", L"element"), STATUS_SUCCESS);
    const UNICODE_STRING key = Counted(L"k");
    CountedString found;
    ASSERT_EQ(CTLookupElement(&Table, &key, &found, 0), STATUS_SUCCESS);
    EXPECT_EQ(found.Get().Length, 14);
    EXPECT_EQ(found.Get().MaximumLength, 16);
    EXPECT_EQ(found.Get().Buffer[7], 0);
    EXPECT_EQ(PoolAllocationSize(found.Get().Buffer), 16u);
}

TEST_F(NameCache, KeysThatDifferInCaseAreDifferentEntries)
{
    ASSERT_EQ(Insert(L"Key", L"upper"), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(L"key"), STATUS_NOT_FOUND);
    ASSERT_EQ(Insert(L"key", L"lower"), STATUS_SUCCESS);
    std::string element;
    EXPECT_EQ(Lookup(L"Key", &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "upper");
    EXPECT_EQ(Count(), 2u);
}

TEST_F(NameCache, SecondInsertKeepsTheFirstElement)
{
    ASSERT_EQ(Insert(L"key", L"first"), STATUS_SUCCESS);
    EXPECT_EQ(Insert(L"key", L"second"), STATUS_SUCCESS);
    std::string element;
    EXPECT_EQ(Lookup(L"key", &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "first");
    EXPECT_EQ(Count(), 1u);
}

TEST_F(NameCache, KeysWithTheSameHashAreTheSameEntry)
{
    // Leading zero units leave the hash as it is.
    const WCHAR longKey[] = {0, 1, 0};
    const WCHAR shortKey[] = {1, 0};
    ASSERT_EQ(Insert(WideView(longKey, 3), L"first"), STATUS_SUCCESS);
    std::string element;
    EXPECT_EQ(Lookup(WideView(shortKey, 2), &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "first");
    EXPECT_EQ(Insert(WideView(shortKey, 2), L"second"), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(WideView(shortKey, 2), &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "first");
    EXPECT_EQ(Count(), 1u);
}

TEST_F(NameCache, RecordWithoutElementIsFoundEmpty)
{
    const UNICODE_STRING key = Counted(L"key");
    const UNICODE_STRING other = Counted(L"other");
    const UNICODE_STRING empty = {};
    ASSERT_EQ(CTInsertElement(&Table, &key, nullptr, 0), STATUS_SUCCESS);
    ASSERT_EQ(CTInsertElement(&Table, &other, &empty, 0), STATUS_SUCCESS);
    CountedString found;
    EXPECT_EQ(CTLookupElement(&Table, &key, &found, 0), STATUS_SUCCESS);
    EXPECT_EQ(found.Get().Buffer, nullptr);
    EXPECT_EQ(CTLookupElement(&Table, &other, &found, 0), STATUS_SUCCESS);
    EXPECT_EQ(found.Get().Buffer, nullptr);
    // Asking for presence alone copies nothing.
    EXPECT_EQ(CTLookupElement(&Table, &key, nullptr, 0), STATUS_SUCCESS);
}

TEST_F(NameCache, The4097thKeyIsRefusedAndLookupsStillWork)
{
    for (ULONG i = 0; i < 4096; ++i)
    {
        ASSERT_EQ(Insert(Widen("key " + std::to_string(i)), L"e"), STATUS_SUCCESS) << i;
    }
    EXPECT_EQ(Count(), 4096u);
    EXPECT_EQ(Insert(L"one more", L"e"), STATUS_INSUFFICIENT_RESOURCES);
    // Full is full, also for a key that is there.
    EXPECT_EQ(Insert(L"key 7", L"f"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("CTInsertElement cache full NTSTATUS = 0xc000009a path = one more\n",
                                   "CTInsertElement cache full NTSTATUS = 0xc000009a path = key 7\n"));
    EXPECT_EQ(Lookup(L"key 4095"), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(L"one more"), STATUS_NOT_FOUND);
    CTClear(&Table);
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Insert(L"one more", L"e"), STATUS_SUCCESS);
}

TEST_F(NameCache, NullArgumentsAreInvalid)
{
    const UNICODE_STRING key = Counted(L"key");
    ULONG count = 0;
    EXPECT_EQ(CTInitialize(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTFinalize(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTGetElementCount(nullptr, &count), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTGetElementCount(&Table, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTLookupElement(nullptr, &key, nullptr, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTLookupElement(&Table, nullptr, nullptr, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTInsertElement(nullptr, &key, &key, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CTInsertElement(&Table, nullptr, &key, 0), STATUS_INVALID_PARAMETER);
    EXPECT_THAT(DebugPrints(),
        ElementsAre("CTInitialize fail NTSTATUS = 0xc000000d\n", "CTFinalize fail NTSTATUS = 0xc000000d\n",
            "CTGetElementCount fail NTSTATUS = 0xc000000d\n", "CTGetElementCount fail NTSTATUS = 0xc000000d\n",
            "CTLookupElement fail NTSTATUS = 0xc000000d path = key\n",
            "CTLookupElement fail NTSTATUS = 0xc000000d path = (null)\n",
            "CTInsertElement fail NTSTATUS = 0xc000000d path = key\n",
            "CTInsertElement fail NTSTATUS = 0xc000000d path = (null)\n"));
}

TEST_F(NameCache, RefusesToWaitForTheLockAtDispatchLevel)
{
    ASSERT_EQ(Insert(L"key", L"e"), STATUS_SUCCESS);
    const UNICODE_STRING key = Counted(L"key");
    NTSTATUS lookup, insert;
    ULONG count = 0;
    {
        RaisedIrql raised(DISPATCH_LEVEL);
        lookup = CTLookupElement(&Table, &key, nullptr, 0);
        insert = CTInsertElement(&Table, &key, &key, 0);
        // The count and the clearing go without it.
        CTGetElementCount(&Table, &count);
        CTClear(&Table);
    }
    EXPECT_EQ(lookup, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(insert, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(Count(), 0u);
    EXPECT_THAT(DebugPrints(), ElementsAre("CTLookupElement fail NTSTATUS = 0xc0000001 path = key\n",
                                   "CTInsertElement fail NTSTATUS = 0xc0000001 path = key\n"));
}

TEST_F(NameCache, WorksAtApcLevel)
{
    RaisedIrql raised(APC_LEVEL);
    EXPECT_EQ(Insert(L"key", L"e"), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(L"key"), STATUS_SUCCESS);
    EXPECT_EQ(Count(), 1u);
}

TEST_F(NameCache, HashFailureIsPassedOn)
{
    FailRoutine("RtlHashUnicodeString", 1, true);
    const NTSTATUS lookup = Lookup(L"key");
    const NTSTATUS insert = Insert(L"key", L"e");
    ResetFailures();
    EXPECT_FALSE(NT_SUCCESS(lookup));
    EXPECT_EQ(insert, lookup);
    char expected[100];
    snprintf(expected, sizeof(expected), "RtlHashUnicodeString fail NTSTATUS = 0x%08x path = key\n",
        static_cast<unsigned>(lookup));
    EXPECT_THAT(DebugPrints(), ElementsAre(expected, expected));
    EXPECT_EQ(Count(), 0u);
}

TEST_F(NameCache, InsertWithoutMemoryForTheRecordLeavesNothing)
{
    FailRoutine("RtlInsertElementGenericTable");
    EXPECT_EQ(Insert(L"key", L"e"), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_THAT(DebugPrints(), ElementsAre("RtlInsertElementGenericTable fail NTSTATUS = 0xc000009a path = key\n"));
    EXPECT_EQ(Count(), 0u);

    Computer.ClearDebugPrints();
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(Insert(L"key", L"e"), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_THAT(DebugPrints(), ElementsAre("RtlInsertElementGenericTable fail NTSTATUS = 0xc000009a path = key\n"));
    EXPECT_EQ(Count(), 0u);
}

TEST_F(NameCache, InsertWithoutMemoryForTheElementKeepsTheRecordEmpty)
{
    FailRoutine("ExAllocatePoolWithTag", 2);
    EXPECT_EQ(Insert(L"key", L"e"), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_THAT(DebugPrints(), ElementsAre("CTInsertElement fail NTSTATUS = 0xc000009a path = key\n"));
    EXPECT_EQ(Count(), 1u);
    EXPECT_EQ(Insert(L"key", L"e"), STATUS_SUCCESS);
    std::string element = "?";
    EXPECT_EQ(Lookup(L"key", &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "");
}

TEST_F(NameCache, LookupWithoutMemoryGivesNoElement)
{
    ASSERT_EQ(Insert(L"key", L"e"), STATUS_SUCCESS);
    FailRoutine("ExAllocatePoolWithTag");
    std::string element = "?";
    EXPECT_EQ(Lookup(L"key", &element), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_EQ(element, "");
    EXPECT_THAT(DebugPrints(), ElementsAre("CTLookupElement fail NTSTATUS = 0xc000009a path = key\n"));
    EXPECT_EQ(Lookup(L"key", &element), STATUS_SUCCESS);
    EXPECT_EQ(element, "e");
}

TEST_F(NameCache, ClearingFreesEveryElement)
{
    const size_t before = LivePoolAllocations();
    for (int i = 0; i < 50; ++i)
    {
        ASSERT_EQ(Insert(Widen(std::to_string(i)), L"element"), STATUS_SUCCESS);
    }
    EXPECT_EQ(LivePoolAllocations(), before + 100);
    CTClear(&Table);
    EXPECT_EQ(LivePoolAllocations(), before);
    EXPECT_EQ(Lookup(L"7"), STATUS_NOT_FOUND);
}

TEST_F(NameCache, SeveralThreadsInsertAndFind)
{
    std::vector<std::thread> threads;
    std::atomic<int> wrong = 0;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [&, thread]
            {
                for (int i = 0; i < 200; ++i)
                {
                    const std::string text = std::to_string(thread % 2) + " " + std::to_string(i);
                    std::string element;
                    wrong += Insert(Widen(text), Widen(text)) != STATUS_SUCCESS;
                    wrong += Lookup(Widen(text), &element) != STATUS_SUCCESS || element != text;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Count(), 400u);
}
}
