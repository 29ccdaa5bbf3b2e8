#include "hosted/machine/leaks.h"

#include "hosted/ex/pool.h"
#include "hosted/flt/filter_manager.h"
#include "hosted/io/irp.h"
#include "hosted/io/mdl.h"
#include "hosted/ob/handle_table.h"
#include "hosted/ps/process_notify.h"

namespace hosted
{
namespace
{
void Compare(std::string* text, const char* kind, const std::string& before, const std::string& now)
{
    if (before != now)
    {
        *text += std::string(kind) + ": " + (now.empty() ? "none" : now);
        *text += before.empty() ? "\n" : " (before: " + before + ")\n";
    }
}

void Compare(std::string* text, const char* kind, size_t before, size_t now)
{
    if (before != now)
    {
        Compare(text, kind, before == 0 ? std::string() : std::to_string(before), std::to_string(now));
    }
}
}

Inventory TakeInventory()
{
    return {LivePoolAllocations(), DescribeLiveObjects(), KernelHandles().Count(), DescribeLiveMdls(),
        DescribeLiveFilterObjects(), RegisteredNotifyRoutines(), PendingIrps()};
}

std::string DescribeLeaks(const Inventory& before)
{
    const Inventory now = TakeInventory();
    std::string text;
    if (now.PoolAllocations != before.PoolAllocations)
    {
        Compare(&text, "pool allocations", before.PoolAllocations, now.PoolAllocations);
        text += DescribeLivePool();
    }
    Compare(&text, "objects", before.Objects, now.Objects);
    Compare(&text, "kernel handles", before.KernelHandles, now.KernelHandles);
    Compare(&text, "memory descriptor lists", before.Mdls, now.Mdls);
    Compare(&text, "filter manager", before.FilterObjects, now.FilterObjects);
    Compare(&text, "process notify routines", before.NotifyRoutines, now.NotifyRoutines);
    Compare(&text, "requests under way", before.Irps, now.Irps);
    return text;
}
}
