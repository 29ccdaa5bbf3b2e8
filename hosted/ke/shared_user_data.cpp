#include "hosted/ke/shared_user_data.h"

#include "hosted/ke/system_time.h"

#include <mutex>

namespace hosted
{
namespace
{
// A time that a processor cannot load at once: written from the second high part to the first, read from the first to
// the second, and whole only while both are equal.
struct SplitTime
{
    ULONG Low;
    LONG High1;
    LONG High2;
};

struct alignas(PAGE_SIZE) Page
{
    UCHAR Before[SharedSystemTimeOffset];
    SplitTime SystemTime;
};
static_assert(sizeof(Page) == PAGE_SIZE);
static_assert(offsetof(Page, SystemTime) == SharedSystemTimeOffset);

constinit Page page = {{}, {static_cast<ULONG>(InitialSystemTime), static_cast<LONG>(InitialSystemTime >> 32),
                               static_cast<LONG>(InitialSystemTime >> 32)}};
std::mutex writers;
}

const UCHAR* SharedUserDataPage()
{
    return reinterpret_cast<const UCHAR*>(&page);
}

LONGLONG ReadSharedSystemTime()
{
    for (;;)
    {
        const LONG high = __atomic_load_n(&page.SystemTime.High1, __ATOMIC_ACQUIRE);
        const ULONG low = __atomic_load_n(&page.SystemTime.Low, __ATOMIC_ACQUIRE);
        if (high == __atomic_load_n(&page.SystemTime.High2, __ATOMIC_ACQUIRE))
        {
            return static_cast<LONGLONG>(static_cast<ULONGLONG>(static_cast<ULONG>(high)) << 32 | low);
        }
    }
}

void WriteSharedSystemTime(LONGLONG time)
{
    const std::lock_guard lock(writers);
    const auto high = static_cast<LONG>(time >> 32);
    __atomic_store_n(&page.SystemTime.High2, high, __ATOMIC_SEQ_CST);
    __atomic_store_n(&page.SystemTime.Low, static_cast<ULONG>(time), __ATOMIC_SEQ_CST);
    __atomic_store_n(&page.SystemTime.High1, high, __ATOMIC_SEQ_CST);
}
}

extern "C" void NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = hosted::ReadSharedSystemTime();
}
