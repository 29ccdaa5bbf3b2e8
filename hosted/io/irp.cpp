#include "hosted/io/irp.h"

#include "hosted/ex/pool_records.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"
#include "hosted/ke/user_access.h"
#include "hosted/ps/process.h"

#include <condition_variable>
#include <map>
#include <mutex>

namespace hosted
{
namespace
{
constexpr CSHORT IrpKind = 6;
constexpr UCHAR PendingReturned = 0x01;
constexpr ULONG IrpTag = 0x20707249;    // "Irp "
constexpr ULONG BufferTag = 0x20206f49; // "Io  "

// What outlives the packet until its sender has seen it.
struct Completion
{
    bool Done = false;
    bool MarkedPending = false;
    IO_STATUS_BLOCK Status{};
    ULONG Flags = 0;
    void* SystemBuffer = nullptr;
    void* UserBuffer = nullptr;
};

std::mutex irpMutex;
std::condition_variable completed;
std::map<PIRP, Completion*> sent;

void Register(PIRP irp, Completion* completion)
{
    const std::lock_guard lock(irpMutex);
    sent[irp] = completion;
}

void CheckReturn(NTSTATUS returned, const Completion& completion, UCHAR majorFunction)
{
    const bool pending = returned == STATUS_PENDING;
    if (CurrentIrql() != PASSIVE_LEVEL)
    {
        BugCheck("IRQL_UNEXPECTED_VALUE", "the dispatch routine of 0x%02x returned at level %u", majorFunction,
            CurrentIrql());
    }
    const std::lock_guard lock(irpMutex);
    if (!pending && !completion.Done)
    {
        BugCheck("IRP_NOT_COMPLETED", "the dispatch routine of 0x%02x returned 0x%08x without completing",
            majorFunction, static_cast<unsigned>(returned));
    }
    if (completion.Done && pending != completion.MarkedPending)
    {
        BugCheck("IRP_PENDING_MISMATCH", "the dispatch routine of 0x%02x returned 0x%08x for a request %s pending",
            majorFunction, static_cast<unsigned>(returned), completion.MarkedPending ? "marked" : "not marked");
    }
    if (!pending && completion.Status.Status != returned)
    {
        BugCheck("IRP_STATUS_MISMATCH", "the dispatch routine of 0x%02x returned 0x%08x and completed with 0x%08x",
            majorFunction, static_cast<unsigned>(returned), static_cast<unsigned>(completion.Status.Status));
    }
}

NTSTATUS CopyOut(const Completion& completion, ULONG outputLength)
{
    const ULONG_PTR count = completion.Status.Information;
    const ULONG wanted = IRP_BUFFERED_IO | IRP_INPUT_OPERATION;
    if ((completion.Flags & wanted) != wanted || NT_ERROR(completion.Status.Status) || count == 0)
    {
        return completion.Status.Status;
    }
    if (count > outputLength)
    {
        BugCheck(
            "BUFFERED_INFORMATION_TOO_LARGE", "%llu bytes reported for an output buffer of %u", count, outputLength);
    }
    const NTSTATUS status = GuardedCopy(completion.UserBuffer, completion.SystemBuffer, count);
    return NT_SUCCESS(status) ? completion.Status.Status : status;
}
}

void* AllocateIoPool(SIZE_T bytes, ULONG tag)
{
    constexpr SIZE_T alignment = 16;
    PoolRecord record = {};
    record.Block = AllocatePoolBlock(bytes, alignment, Model().GuardedPool);
    record.Tag = tag;
    record.Type = NonPagedPool;
    AddPoolRecord(record);
    return record.Block.Address;
}

PIRP AllocateIrp(PDEVICE_OBJECT device)
{
    constexpr SIZE_T bytes = sizeof(IRP) + sizeof(IO_STACK_LOCATION);
    auto* irp = static_cast<PIRP>(AllocateIoPool(bytes, IrpTag));
    __builtin_memset(irp, 0, bytes);
    irp->Type = IrpKind;
    irp->Size = bytes;
    irp->StackCount = 1;
    irp->CurrentLocation = 1;
    irp->Tail.Overlay.Thread = AsThread(CurrentThread());
    auto* stack = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
    stack->DeviceObject = device;
    irp->Tail.Overlay.CurrentStackLocation = stack;
    return irp;
}

void FreeIrp(PIRP irp)
{
    if (FlagOn(irp->Flags, IRP_DEALLOCATE_BUFFER))
    {
        ExFreePoolWithTag(irp->AssociatedIrp.SystemBuffer, BufferTag);
    }
    ExFreePoolWithTag(irp, IrpTag);
}

NTSTATUS SendIrp(PDEVICE_OBJECT device, PIRP irp, ULONG outputLength, ULONG_PTR* information)
{
    RequireIrql(PASSIVE_LEVEL, "SendIrp");
    const UCHAR majorFunction = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    Completion completion;
    Register(irp, &completion);
    CheckReturn(device->DriverObject->MajorFunction[majorFunction](device, irp), completion, majorFunction);
    {
        std::unique_lock lock(irpMutex);
        completed.wait(lock, [&completion] { return completion.Done; });
    }
    const NTSTATUS status = CopyOut(completion, outputLength);
    if (FlagOn(completion.Flags, IRP_DEALLOCATE_BUFFER))
    {
        ExFreePoolWithTag(completion.SystemBuffer, BufferTag);
    }
    if (information != nullptr)
    {
        *information = completion.Status.Information;
    }
    return status;
}

SIZE_T PendingIrps()
{
    const std::lock_guard lock(irpMutex);
    return sent.size();
}
}

// The packet is freed here and now, so that a driver which touches it afterwards is caught.
extern "C" void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR)
{
    hosted::RequireIrql(DISPATCH_LEVEL, "IofCompleteRequest");
    const std::lock_guard lock(hosted::irpMutex);
    const auto found = hosted::sent.find(Irp);
    if (found == hosted::sent.end())
    {
        hosted::BugCheck("MULTIPLE_IRP_COMPLETE_REQUESTS", "packet %p is not under way", static_cast<void*>(Irp));
    }
    if (Irp->IoStatus.Status == STATUS_PENDING)
    {
        hosted::BugCheck("IRP_COMPLETED_AS_PENDING", "packet %p", static_cast<void*>(Irp));
    }
    hosted::Completion& completion = *found->second;
    hosted::sent.erase(found);
    completion.MarkedPending = FlagOn(IoGetCurrentIrpStackLocation(Irp)->Control, hosted::PendingReturned) != 0;
    completion.Status = Irp->IoStatus;
    completion.Flags = Irp->Flags;
    completion.SystemBuffer = Irp->AssociatedIrp.SystemBuffer;
    completion.UserBuffer = Irp->UserBuffer;
    ExFreePoolWithTag(Irp, hosted::IrpTag);
    completion.Done = true;
    hosted::completed.notify_all();
}
