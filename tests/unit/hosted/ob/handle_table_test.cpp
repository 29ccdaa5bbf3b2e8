#include "hosted/ob/handle_table.h"

#include "hosted/ke/event.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/event_object.h"
#include "hosted/ps/process.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace hosted
{
namespace
{
int lastCloses;
int deletions;
const ObjectType ThingType = {"Thing", [](void*) { ++lastCloses; }, [](void*) { ++deletions; }};

POBJECT_TYPE Exported(const ObjectType& type)
{
    return reinterpret_cast<POBJECT_TYPE>(const_cast<ObjectType*>(&type));
}

HANDLE Value(LONG_PTR value)
{
    return reinterpret_cast<HANDLE>(value);
}

class Handles : public testing::Test
{
protected:
    void SetUp() override
    {
        lastCloses = deletions = 0;
        kernelHandles_ = KernelHandles().Count();
    }
    void TearDown() override
    {
        ResetFailures();
        EXPECT_EQ(kernelHandles_, KernelHandles().Count());
        EXPECT_EQ(std::string::npos, DescribeLiveObjects().find("Thing"));
    }

    HandleTable table_{false};
    size_t kernelHandles_;
};

TEST_F(Handles, UserHandlesAreSmallMultiplesOfFour)
{
    void* thing = CreateObject(ThingType, 8);
    EXPECT_EQ(Value(4), table_.Insert(thing, 0));
    EXPECT_EQ(Value(8), table_.Insert(thing, 0));
    EXPECT_EQ(3, ReferenceCount(thing));
    EXPECT_EQ(2u, table_.Count());
    EXPECT_EQ(STATUS_SUCCESS, table_.Close(Value(4)));
    EXPECT_EQ(Value(12), table_.Insert(thing, 0)) << "values are not used again";
    table_.CloseAll();
    EXPECT_EQ(0u, table_.Count());
    EXPECT_EQ(1, lastCloses);
    DereferenceObject(thing);
    EXPECT_EQ(1, deletions);
}

TEST_F(Handles, KernelHandlesHaveTheSignBit)
{
    void* thing = CreateObject(ThingType, 8);
    HANDLE handle = KernelHandles().Insert(thing, 0);
    EXPECT_LT(reinterpret_cast<LONG_PTR>(handle), 0);
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(handle) % 4);
    EXPECT_EQ(&KernelHandles(), &TableOf(handle));
    EXPECT_EQ(&CurrentProcessHandles(), &TableOf(Value(4)));
    EXPECT_EQ(&KernelHandles(), &TableFor(OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE));
    EXPECT_EQ(&CurrentProcessHandles(), &TableFor(OBJ_CASE_INSENSITIVE));
    DereferenceObject(thing);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(1, deletions);
}

TEST_F(Handles, ReferenceChecksHandleTypeAndAccess)
{
    void* thing = CreateObject(ThingType, 8);
    HANDLE handle = table_.Insert(thing, READ_CONTROL | 1);
    void* body = thing;
    EXPECT_EQ(STATUS_INVALID_HANDLE, table_.Reference(Value(400), 0, nullptr, KernelMode, &body));
    EXPECT_EQ(nullptr, body);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, table_.Reference(handle, 0, &EventType, KernelMode, &body));
    EXPECT_EQ(STATUS_ACCESS_DENIED, table_.Reference(handle, 3, &ThingType, UserMode, &body));
    EXPECT_EQ(nullptr, body);
    EXPECT_EQ(2, ReferenceCount(thing));
    EXPECT_EQ(STATUS_SUCCESS, table_.Reference(handle, 3, &ThingType, KernelMode, &body));
    EXPECT_EQ(STATUS_SUCCESS, table_.Reference(handle, READ_CONTROL, nullptr, UserMode, &body));
    EXPECT_EQ(thing, body);
    EXPECT_EQ(4, ReferenceCount(thing));
    EXPECT_EQ(STATUS_SUCCESS, table_.Reference(Value(7), 0, nullptr, UserMode, &body)) << "low bits are ignored";
    ACCESS_MASK granted = 0;
    EXPECT_EQ(STATUS_SUCCESS, table_.Granted(handle, &granted));
    EXPECT_EQ(READ_CONTROL | 1u, granted);
    EXPECT_EQ(STATUS_INVALID_HANDLE, table_.Granted(Value(400), &granted));
    table_.CloseAll();
    for (int i = 0; i < 4; ++i)
    {
        DereferenceObject(thing);
    }
}

TEST_F(Handles, ProgramsCannotUseKernelHandles)
{
    void* thing = CreateObject(ThingType, 8);
    HANDLE handle = KernelHandles().Insert(thing, 1);
    void* body;
    EXPECT_EQ(STATUS_INVALID_HANDLE, KernelHandles().Reference(handle, 0, nullptr, UserMode, &body));
    EXPECT_EQ(STATUS_SUCCESS, KernelHandles().Close(handle));
    DereferenceObject(thing);
}

TEST_F(Handles, TheLastHandleOfAllTablesCounts)
{
    void* thing = CreateObject(ThingType, 8);
    HANDLE user = table_.Insert(thing, 0);
    HANDLE kernel = KernelHandles().Insert(thing, 0);
    DereferenceObject(thing);
    EXPECT_EQ(STATUS_SUCCESS, table_.Close(user));
    EXPECT_EQ(0, lastCloses);
    EXPECT_EQ(STATUS_INVALID_HANDLE, table_.Close(user));
    EXPECT_EQ(STATUS_SUCCESS, KernelHandles().Close(kernel));
    EXPECT_EQ(1, lastCloses);
    EXPECT_EQ(1, deletions);
}

TEST_F(Handles, ATableClosesWhatIsLeft)
{
    {
        HandleTable table(false);
        void* thing = CreateObject(ThingType, 8);
        table.Insert(thing, 0);
        DereferenceObject(thing);
    }
    EXPECT_EQ(1, lastCloses);
    EXPECT_EQ(1, deletions);
}

TEST_F(Handles, EventsOfPrograms)
{
    PKEVENT event;
    HANDLE handle = CreateEventHandle(table_, SynchronizationEvent, &event);
    EXPECT_FALSE(IsSignalled(event));
    EXPECT_EQ(SynchronizationEvent, event->Header.Type);
    EXPECT_EQ(1, ReferenceCount(event));
    EXPECT_EQ(&EventType, &TypeOf(event));
    EXPECT_EQ(reinterpret_cast<const void*>(&EventType), *ExEventObjectType);
    ACCESS_MASK granted;
    EXPECT_EQ(STATUS_SUCCESS, table_.Granted(handle, &granted));
    EXPECT_EQ(EVENT_ALL_ACCESS, granted);
    EXPECT_EQ(STATUS_SUCCESS, table_.Close(handle));
    EXPECT_EQ(STATUS_SUCCESS, table_.Close(CreateEventHandle(table_, NotificationEvent, nullptr)));
}

TEST_F(Handles, ObReferenceObjectByHandle)
{
    HandleTable& own = CurrentProcessHandles();
    PKEVENT event;
    HANDLE handle = CreateEventHandle(own, NotificationEvent, &event);
    PVOID body = nullptr;
    OBJECT_HANDLE_INFORMATION information = {};
    EXPECT_EQ(STATUS_SUCCESS,
        ObReferenceObjectByHandle(handle, READ_CONTROL, *ExEventObjectType, UserMode, &body, &information));
    EXPECT_EQ(event, body);
    EXPECT_EQ(EVENT_ALL_ACCESS, information.GrantedAccess);
    EXPECT_EQ(0u, information.HandleAttributes);
    EXPECT_EQ(STATUS_ACCESS_DENIED,
        ObReferenceObjectByHandle(handle, GENERIC_ALL, *ExEventObjectType, UserMode, &body, nullptr));
    EXPECT_EQ(nullptr, body);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH,
        ObReferenceObjectByHandle(handle, 0, Exported(ThingType), UserMode, &body, nullptr));
    EXPECT_EQ(
        STATUS_INVALID_HANDLE, ObReferenceObjectByHandle(nullptr, 0, *ExEventObjectType, UserMode, &body, nullptr));
    EXPECT_EQ(STATUS_INVALID_HANDLE,
        ObReferenceObjectByHandle(Value(-400), 0, *ExEventObjectType, KernelMode, &body, nullptr));
    FailRoutine("ObReferenceObjectByHandle");
    EXPECT_EQ(
        STATUS_INVALID_HANDLE, ObReferenceObjectByHandle(handle, 0, *ExEventObjectType, KernelMode, &body, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(1, ReferenceCount(event)) << "the reference outlives the handle";
    ObDereferenceObject(event);
}

TEST_F(Handles, TheCallersOwnProcessAndThread)
{
    PVOID body;
    EXPECT_EQ(
        STATUS_SUCCESS, ObReferenceObjectByHandle(Value(-1), 0, Exported(ProcessType), KernelMode, &body, nullptr));
    EXPECT_EQ(CurrentProcess(), body);
    ObDereferenceObject(body);
    EXPECT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(Value(-2), 0, nullptr, KernelMode, &body, nullptr));
    EXPECT_EQ(CurrentThread(), body);
    ObDereferenceObject(body);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH,
        ObReferenceObjectByHandle(Value(-1), 0, *ExEventObjectType, KernelMode, &body, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(Value(-1)));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(Value(-2)));
}

TEST_F(Handles, ObOpenObjectByPointer)
{
    void* thing = CreateObject(ThingType, 8);
    HANDLE handle = Value(1);
    EXPECT_EQ(STATUS_SUCCESS, ObOpenObjectByPointer(thing, OBJ_KERNEL_HANDLE, nullptr, READ_CONTROL,
                                  Exported(ThingType), KernelMode, &handle));
    EXPECT_LT(reinterpret_cast<LONG_PTR>(handle), 0);
    ACCESS_MASK granted;
    EXPECT_EQ(STATUS_SUCCESS, KernelHandles().Granted(handle, &granted));
    EXPECT_EQ(READ_CONTROL, static_cast<LONG>(granted));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_SUCCESS, ObOpenObjectByPointer(thing, 0, nullptr, 0, nullptr, KernelMode, &handle));
    EXPECT_GT(reinterpret_cast<LONG_PTR>(handle), 0);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH,
        ObOpenObjectByPointer(thing, 0, nullptr, 0, *ExEventObjectType, KernelMode, &handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, ObOpenObjectByPointer(thing, 0, nullptr, 0, nullptr, UserMode, &handle));
    FailRoutine("ObOpenObjectByPointer");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
        ObOpenObjectByPointer(thing, 0, nullptr, 0, Exported(ThingType), KernelMode, &handle));
    EXPECT_EQ(1, ReferenceCount(thing));
    DereferenceObject(thing);
}

TEST_F(Handles, ClosingAUserHandleTwiceIsAStatus)
{
    HANDLE handle = CreateEventHandle(CurrentProcessHandles(), NotificationEvent, nullptr);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_INVALID_HANDLE, ZwClose(handle));
    EXPECT_EQ(STATUS_INVALID_HANDLE, ZwClose(nullptr));
}

TEST_F(Handles, ManyThreads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [this]
            {
                for (int j = 0; j < 200; ++j)
                {
                    HANDLE handle = CreateEventHandle(table_, NotificationEvent, nullptr);
                    void* body;
                    EXPECT_EQ(STATUS_SUCCESS, table_.Reference(handle, 0, &EventType, UserMode, &body));
                    EXPECT_EQ(STATUS_SUCCESS, table_.Close(handle));
                    DereferenceObject(body);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(0u, table_.Count());
}

TEST_F(Handles, RulesDeath)
{
    PVOID body;
    HANDLE handle;
    EXPECT_DEATH(ZwClose(Value(-4000)), "kernel-handle-invalid");
    EXPECT_DEATH(ObReferenceObjectByHandle(Value(4), 0, nullptr, UserMode, &body, nullptr), "object-type-missing");
    void* thing = CreateObject(ThingType, 8);
    EXPECT_DEATH(
        ObOpenObjectByPointer(thing, 0, reinterpret_cast<PACCESS_STATE>(thing), 0, nullptr, KernelMode, &handle),
        "access-state");
    {
        RaisedIrql apc(APC_LEVEL);
        EXPECT_DEATH(ZwClose(Value(4)), "irql-too-high: ZwClose");
        EXPECT_DEATH(ObReferenceObjectByHandle(Value(4), 0, nullptr, KernelMode, &body, nullptr),
            "irql-too-high: ObReferenceObjectByHandle");
        EXPECT_DEATH(ObOpenObjectByPointer(thing, 0, nullptr, 0, nullptr, KernelMode, &handle),
            "irql-too-high: ObOpenObjectByPointer");
    }
    DereferenceObject(thing);
}
}
}
