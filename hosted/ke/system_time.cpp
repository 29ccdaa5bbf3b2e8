#include "hosted/ke/system_time.h"

#include <atomic>

namespace host
{
namespace
{
std::atomic<LONGLONG> now{InitialSystemTime};
}

LONGLONG SystemTime()
{
    return now.load(std::memory_order_relaxed);
}

void AdvanceSystemTime(LONGLONG interval)
{
    now.fetch_add(interval, std::memory_order_relaxed);
}

void ResetSystemTime()
{
    now.store(InitialSystemTime, std::memory_order_relaxed);
}
}
