#include "hosted/ke/system_time.h"

#include "hosted/ke/shared_user_data.h"

#include <mutex>

namespace hosted
{
namespace
{
// Held from the reading to the writing of a move, so that none is lost.
std::mutex movers;
}

LONGLONG SystemTime()
{
    return ReadSharedSystemTime();
}

void SetSystemTime(LONGLONG time)
{
    const std::lock_guard lock(movers);
    WriteSharedSystemTime(time);
}

void AdvanceSystemTime(LONGLONG interval)
{
    const std::lock_guard lock(movers);
    WriteSharedSystemTime(ReadSharedSystemTime() + interval);
}

void ResetSystemTime()
{
    SetSystemTime(InitialSystemTime);
}
}
