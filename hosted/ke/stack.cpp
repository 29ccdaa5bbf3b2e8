// Kernel stack limits. A Linux thread's stack is far larger than a kernel stack, so the limits are the model's, not
// those of the thread: what is left is counted from the caller's frame.
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"

namespace hosted
{
namespace
{
constexpr SIZE_T KernelStackSize = 0x6000;
constexpr SIZE_T LargeKernelStackSize = 0x12000;
// As the platform defines it: the large stack less half a page for the switch.
constexpr SIZE_T MaximumExpansionSize = LargeKernelStackSize - PAGE_SIZE / 2;
constexpr NTSTATUS StatusInvalidParameter3 = static_cast<NTSTATUS>(0xC00000F1);

struct Expansion
{
    SIZE_T Size = 0; // 0: the thread runs on its ordinary stack
    ULONG_PTR Top = 0;
};
constinit thread_local Expansion expansion;

ULONG_PTR FrameAddress()
{
    return reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
}

SIZE_T BytesLeft(ULONG_PTR frame)
{
    if (expansion.Size != 0)
    {
        SIZE_T used = expansion.Top > frame ? expansion.Top - frame : 0;
        return used < expansion.Size ? expansion.Size - used : 0;
    }
    return Model().StackBytesLeft != 0 ? Model().StackBytesLeft : KernelStackSize;
}
}
}

extern "C" void NTAPI IoGetStackLimits(PULONG_PTR LowLimit, PULONG_PTR HighLimit)
{
    using namespace hosted;
    if (LowLimit == nullptr || HighLimit == nullptr)
    {
        BugCheck("null-pointer", "IoGetStackLimits without a place for both limits");
    }
    // Counted from the caller's own variable, as callers compare the limit with the address of one. Under the
    // address sanitizer that variable may stand outside the real stack; the difference is what counts.
    SIZE_T left = BytesLeft(FrameAddress());
    SIZE_T whole = expansion.Size != 0 ? expansion.Size : KernelStackSize;
    ULONG_PTR caller = reinterpret_cast<ULONG_PTR>(LowLimit);
    ULONG_PTR low = caller - left;
    ULONG_PTR high = low + (whole > left ? whole : left);
    *LowLimit = low;
    *HighLimit = ROUND_TO_PAGES(high + 1);
}

extern "C" NTSTATUS NTAPI KeExpandKernelStackAndCallout(PEXPAND_STACK_CALLOUT Callout, PVOID Parameter, SIZE_T Size)
{
    using namespace hosted;
    RequireIrql(DISPATCH_LEVEL, "KeExpandKernelStackAndCallout");
    if (InjectFailure("KeExpandKernelStackAndCallout"))
    {
        return STATUS_NO_MEMORY;
    }
    if (Size > MaximumExpansionSize)
    {
        return StatusInvalidParameter3;
    }
    KIRQL level = CurrentIrql();
    Expansion outer = expansion;
    ULONG_PTR frame = FrameAddress();
    // A stack with room enough is not switched.
    if (BytesLeft(frame) < Size)
    {
        expansion = {Size, frame};
    }
    Callout(Parameter);
    expansion = outer;
    if (CurrentIrql() != level)
    {
        BugCheck("irql-not-restored", "a stack callout entered at %u returns at %u", level, CurrentIrql());
    }
    return STATUS_SUCCESS;
}
