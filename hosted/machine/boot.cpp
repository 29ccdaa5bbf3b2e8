#include "hosted/machine/boot.h"

#include "hosted/cc/cache.h"
#include "hosted/cm/registry.h"
#include "hosted/ke/fast_mutex.h"
#include "hosted/ex/pool.h"
#include "hosted/ex/system_routines.h"
#include "hosted/io/mailslot.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/system_time.h"
#include "hosted/ps/process_notify.h"
#include "hosted/ps/process_table.h"
#include "hosted/rtl/debug_print.h"

#include <atomic>

namespace hosted
{
namespace
{
std::atomic<bool> up{false};
}

void ResetKernel(const SystemModel& model)
{
    if (up.exchange(true))
    {
        BugCheck("TWO_MACHINES", "one machine at a time");
    }
    SetModel(model);
    // Starting what the system itself needs must not use up a plan, nor count.
    ResetFailures();
    ResetSystemTime();
    ClearDebugPrints();
    ResetInnermost();
    ShowAllSystemRoutines();
    ResetNotifyRoutines();
    ShutdownProcesses();
    SystemRegistry().Reset();
    ResetPeakPoolBytes();
    ResetPeakCachedBytes();
    StartMailslots();
    ResetFailures();
}

void ReleaseKernel()
{
    StopMailslots();
    ShutdownProcesses();
    ShowAllSystemRoutines();
    SetImageForcesIntegrity(true);
    up = false;
}
}
