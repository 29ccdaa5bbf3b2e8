// Pool, memory descriptor lists, stack, probes, and the routines that compiled code calls.
#include "tests/conformance/platform/questions/questions.h"

#include <fault_guard.h>

namespace questions
{
namespace
{
constexpr ULONG Tag = 'meMq';

void AskAllocation(Answers& answers, const char* label, POOL_TYPE type, SIZE_T bytes)
{
    auto* memory = static_cast<UCHAR*>(ExAllocatePoolWithTag(type, bytes, Tag));
    if (memory == nullptr)
    {
        answers.Line("ExAllocatePoolWithTag ", label, " ", bytes, ": nothing");
        return;
    }
    const auto place = reinterpret_cast<ULONG_PTR>(memory);
    answers.Line("ExAllocatePoolWithTag ", label, " ", bytes, " on 16 bytes: ", place % 16 == 0);
    if (bytes >= PAGE_SIZE)
    {
        answers.Line("ExAllocatePoolWithTag ", label, " ", bytes, " on a page: ", place % PAGE_SIZE == 0);
    }
    memory[0] = 1;
    memory[bytes - 1] = 2;
    ExFreePoolWithTag(memory, Tag);
}

void AskDescriptor(Answers& answers, UCHAR* memory, ULONG offset, ULONG bytes)
{
    const PMDL mdl = IoAllocateMdl(memory + offset, bytes, FALSE, FALSE, nullptr);
    if (mdl == nullptr)
    {
        answers.Line("IoAllocateMdl offset ", offset, " bytes ", bytes, ": nothing");
        return;
    }
    const auto start = ALIGN_DOWN_BY(memory + offset, PAGE_SIZE);
    answers.Line("IoAllocateMdl offset ", offset, " bytes ", bytes, ": bytes ", mdl->ByteCount, " start ",
        reinterpret_cast<ULONG_PTR>(mdl->StartVa) == reinterpret_cast<ULONG_PTR>(start), " offset ",
        mdl->ByteOffset == BYTE_OFFSET(memory + offset), " next ", Address{mdl->Next}, " address ",
        MmGetMdlVirtualAddress(mdl) == memory + offset);
    answers.Line("IoAllocateMdl offset ", offset, " bytes ", bytes, " flags: ", Hex{static_cast<ULONG>(mdl->MdlFlags)});
    const ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(memory + offset, bytes);
    answers.Line("IoAllocateMdl offset ", offset, " bytes ", bytes,
        " size covers pages: ", mdl->Size == static_cast<int>(sizeof(MDL) + pages * sizeof(PVOID)));
    MmBuildMdlForNonPagedPool(mdl);
    answers.Line("MmBuildMdlForNonPagedPool offset ", offset, " bytes ", bytes, ": mapped ",
        mdl->MappedSystemVa == memory + offset, " non-paged ", (mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL) != 0,
        " no process ", mdl->Process == nullptr);
    IoFreeMdl(mdl);
}

struct Call
{
    ULONG Count = 0;
    bool Inside = false;
};

void NTAPI CountCall(PVOID parameter)
{
    auto* call = static_cast<Call*>(parameter);
    ++call->Count;
    ULONG_PTR low = 0;
    ULONG_PTR high = 0;
    IoGetStackLimits(&low, &high);
    call->Inside = low<high&& reinterpret_cast<ULONG_PTR>(&low)> low && reinterpret_cast<ULONG_PTR>(&low) < high;
}

void AskOneProbe(Answers& answers, const char* label, ULONG_PTR address, SIZE_T bytes, ULONG alignment)
{
    const NTSTATUS status = TryAccess([=] { ProbeForWrite(reinterpret_cast<void*>(address), bytes, alignment); });
    answers.Line("ProbeForWrite ", label, ": ", Status{status});
}
}

void AskPool(Answers& answers)
{
    for (SIZE_T bytes : {1, 8, 15, 16, 17, 100, 4000, 4096, 4097, 8192, 100000})
    {
        AskAllocation(answers, "non-paged", NonPagedPool, bytes);
        AskAllocation(answers, "paged", PagedPool, bytes);
    }
}

void AskMemoryDescriptors(Answers& answers)
{
    auto* memory = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, 4 * PAGE_SIZE, Tag));
    if (memory == nullptr)
    {
        return;
    }
    // So that what an answer depends on is the same wherever the pool has put the memory.
    auto* const page = reinterpret_cast<UCHAR*>(ROUND_TO_PAGES(memory));
    for (ULONG offset : {0u, 1u, 512u, 4095u})
    {
        for (ULONG bytes : {1u, 512u, 4096u, 8000u})
        {
            AskDescriptor(answers, page, offset, bytes);
        }
    }
    ExFreePoolWithTag(memory, Tag);
}

void AskStack(Answers& answers)
{
    ULONG_PTR low = 0;
    ULONG_PTR high = 0;
    IoGetStackLimits(&low, &high);
    const auto here = reinterpret_cast<ULONG_PTR>(&low);
    answers.Line("IoGetStackLimits: in order ", low<high, " here inside ", here> low && here < high);
    for (SIZE_T bytes : {0x1000u, 0x3000u, 0x11000u})
    {
        Call call;
        const NTSTATUS status = KeExpandKernelStackAndCallout(CountCall, &call, bytes);
        answers.Line("KeExpandKernelStackAndCallout ", Hex{bytes}, ": ", Status{status}, " calls ", call.Count,
            " inside its limits ", call.Inside);
    }
    Call call;
    const NTSTATUS status = KeExpandKernelStackAndCallout(CountCall, &call, 0x100000);
    answers.Line("KeExpandKernelStackAndCallout of too much: ", Status{status}, " calls ", call.Count);
}

void AskProbe(Answers& answers)
{
    AskOneProbe(answers, "of nothing", 1, 0, 4);
    AskOneProbe(answers, "of null", 0, 4, 4);
    AskOneProbe(answers, "misaligned for 2", 0x10001, 4, 2);
    AskOneProbe(answers, "misaligned for 4", 0x10002, 4, 4);
    AskOneProbe(answers, "misaligned for 8", 0x10004, 4, 8);
    AskOneProbe(answers, "of the kernel's", 0xFFFFF80000000000ULL, 4, 4);
    AskOneProbe(answers, "across the end of user memory", 0x7FFFFFFEFFFCULL, 0x1000, 4);
    AskOneProbe(answers, "around the end of memory", 0xFFFFFFFFFFFFFFF0ULL, 0x100, 4);
}

void AskMemoryRoutines(Answers& answers)
{
    // Volatile lengths, so that the routines themselves are called.
    volatile SIZE_T length = 8;
    UCHAR bytes[24];
    __builtin_memset(bytes, UntouchedByte, sizeof(bytes));
    __builtin_memset(bytes + 4, 0x11, length);
    answers.Line("memset: ", Written{bytes, sizeof(bytes)});
    __builtin_memcpy(bytes, "abcdefgh", length);
    answers.Line("memcpy: ", Written{bytes, sizeof(bytes)});
    __builtin_memmove(bytes + 2, bytes, length);
    answers.Line("memmove up: ", Written{bytes, sizeof(bytes)});
    __builtin_memmove(bytes, bytes + 3, length);
    answers.Line("memmove down: ", Written{bytes, sizeof(bytes)});
    const auto sign = [](int value) { return value < 0 ? -1 : value > 0 ? 1 : 0; };
    answers.Line("memcmp: ", sign(__builtin_memcmp("abcdefgh", "abcdefgh", length)), " ",
        sign(__builtin_memcmp("abcdefgh", "abcdefgi", length)), " ", sign(__builtin_memcmp("\x80", "\x7F", length - 7)),
        " ", sign(__builtin_memcmp("a", "b", length - 8)));
}
}
