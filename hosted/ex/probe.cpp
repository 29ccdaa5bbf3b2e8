#include "hosted/ex/probe.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"

namespace hosted
{
namespace
{
constexpr ULONG_PTR HighestUserAddress = 0x7FFFFFFEFFFF;

bool IsProbeAlignment(ULONG alignment)
{
    return alignment == 1 || alignment == 2 || alignment == 4 || alignment == 8 || alignment == 16;
}

// Reads a byte and writes it back, as the platform does. Programs may use their memory at the same time; that is
// no race of the kernel's.
__attribute__((no_sanitize("thread", "address"))) void Touch(ULONG_PTR address)
{
    volatile UCHAR* byte = reinterpret_cast<volatile UCHAR*>(address);
    if (!IsUserAddress(byte))
    {
        RaiseStatus(STATUS_ACCESS_VIOLATION);
    }
    *byte = *byte;
}

thread_local std::function<void()> afterProbe;
}

void SetAfterProbe(std::function<void()> hook)
{
    afterProbe = std::move(hook);
}
}

extern "C" void NTAPI ProbeForWrite(volatile void* Address, SIZE_T Length, ULONG Alignment)
{
    using namespace hosted;
    RequireIrql(APC_LEVEL, "ProbeForWrite");
    if (!IsProbeAlignment(Alignment))
    {
        BugCheck("probe-alignment", "ProbeForWrite for an alignment of %u", Alignment);
    }
    if (!InGuardedCall())
    {
        BugCheck("probe-unguarded", "ProbeForWrite outside guarded access");
    }
    if (Length == 0)
    {
        return;
    }
    ULONG_PTR first = reinterpret_cast<ULONG_PTR>(Address);
    if ((first & (Alignment - 1)) != 0)
    {
        RaiseStatus(STATUS_DATATYPE_MISALIGNMENT);
    }
    ULONG_PTR last = first + Length - 1;
    if (last < first || last > HighestUserAddress)
    {
        RaiseStatus(STATUS_ACCESS_VIOLATION);
    }
    for (ULONG_PTR page = first; page <= last; page = ALIGN_DOWN_BY(page, PAGE_SIZE) + PAGE_SIZE)
    {
        Touch(page);
    }
    if (afterProbe)
    {
        afterProbe();
    }
}
