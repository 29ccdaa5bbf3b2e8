#include "hosted/ke/event.h"

#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace hosted
{
namespace
{
constexpr unsigned LongEnough = 60000;

TEST(Event, HasTheInitialStateAskedFor)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_FALSE(IsSignalled(&event));
    EXPECT_EQ(NotificationEvent, event.Header.Type);
    EXPECT_EQ(6, event.Header.Size);
    EXPECT_EQ(&event.Header.WaitListHead, event.Header.WaitListHead.Flink);
    EXPECT_EQ(&event.Header.WaitListHead, event.Header.WaitListHead.Blink);
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_TRUE(IsSignalled(&event));
    EXPECT_EQ(SynchronizationEvent, event.Header.Type);
}

TEST(Event, SetReturnsThePreviousState)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(0, KeSetEvent(&event, IO_NO_INCREMENT, FALSE));
    EXPECT_EQ(1, KeSetEvent(&event, IO_NO_INCREMENT, FALSE));
    ClearEvent(&event);
    EXPECT_FALSE(IsSignalled(&event));
    EXPECT_EQ(0, KeSetEvent(&event, IO_NO_INCREMENT, FALSE));
}

TEST(Event, NotificationStaysSignalled)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, TRUE);
    EXPECT_TRUE(WaitForEvent(&event, 0));
    EXPECT_TRUE(WaitForEvent(&event, 0));
}

TEST(Event, SynchronizationEndsOneWait)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_TRUE(WaitForEvent(&event, 0));
    EXPECT_FALSE(IsSignalled(&event));
    EXPECT_FALSE(WaitForEvent(&event, 0));
}

TEST(Event, WaitEndsWhenAnotherThreadSets)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    int published = 0;
    std::thread setter(
        [&]
        {
            published = 42;
            RaisedIrql dispatch(DISPATCH_LEVEL);
            KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        });
    EXPECT_TRUE(WaitForEvent(&event, LongEnough));
    EXPECT_EQ(42, published);
    setter.join();
}

TEST(Event, AnObserverCountsTheSignalsOfItsTime)
{
    KEVENT event;
    KEVENT other;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    KeInitializeEvent(&other, SynchronizationEvent, FALSE);
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    eventfd_t count = 0;
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    {
        const EventObserver observer(&event, descriptor);
        EXPECT_NE(eventfd_read(descriptor, &count), 0);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        KeSetEvent(&other, IO_NO_INCREMENT, FALSE);
        ClearEvent(&event);
        EXPECT_EQ(eventfd_read(descriptor, &count), 0);
        EXPECT_EQ(count, 2u);
        // Two of one event.
        const EventObserver second(&event, descriptor);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        EXPECT_EQ(eventfd_read(descriptor, &count), 0);
        EXPECT_EQ(count, 2u);
    }
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    EXPECT_NE(eventfd_read(descriptor, &count), 0);
    close(descriptor);
}

TEST(EventDeath, Rules)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_DEATH(
        {
            RaisedIrql high(DISPATCH_LEVEL + 1);
            KeSetEvent(&event, 0, FALSE);
        },
        "irql-too-high: KeSetEvent");
    EXPECT_DEATH(KeSetEvent(&event, 0, TRUE), "event-wait");
    EXPECT_DEATH(KeSetEvent(&event, -1, FALSE), "event-increment");
    EXPECT_DEATH(KeInitializeEvent(&event, static_cast<EVENT_TYPE>(2), FALSE), "event-type");
}

TEST(EventDeath, OnlyInitialisedEventsWork)
{
    KEVENT event;
    memset(&event, 0, sizeof(event));
    EXPECT_DEATH(KeSetEvent(&event, 0, FALSE), "event-not-initialised: KeSetEvent");
    EXPECT_DEATH(IsSignalled(&event), "event-not-initialised: IsSignalled");
    EXPECT_DEATH(WaitForEvent(&event, 0), "event-not-initialised: WaitForEvent");
    EXPECT_DEATH(ClearEvent(&event), "event-not-initialised: ClearEvent");
    KEVENT original;
    KeInitializeEvent(&original, NotificationEvent, FALSE);
    memcpy(&event, &original, sizeof(event));
    EXPECT_DEATH(KeSetEvent(&event, 0, FALSE), "event-not-initialised");
}
}
}
