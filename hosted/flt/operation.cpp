// One operation on its way through the filter to the file system and back.
#include "hosted/flt/callback_data.h"
#include "hosted/flt/filter_callback.h"

#include "hosted/io/mdl.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"

#include <algorithm>
#include <optional>

namespace hosted
{
namespace
{
constexpr ULONG UncachedFlags = IRP_NOCACHE | IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO;

// What the pre-operation callback decided.
struct Decision
{
    FLT_PREOP_CALLBACK_STATUS Status = FLT_PREOP_SUCCESS_WITH_CALLBACK;
    PVOID Context = nullptr;
    PMDL SwappedMdl = nullptr;
};

PMDL MdlOf(const FLT_IO_PARAMETER_BLOCK& block)
{
    switch (block.MajorFunction)
    {
    case IRP_MJ_READ:
        return block.Parameters.Read.MdlAddress;
    case IRP_MJ_WRITE:
        return block.Parameters.Write.MdlAddress;
    case IRP_MJ_DIRECTORY_CONTROL:
        return block.Parameters.QueryDirectory.MdlAddress;
    default:
        return nullptr;
    }
}

void CheckDecision(const Decision& decision, const ShownOperation& shown, const FLT_OPERATION_REGISTRATION& callbacks)
{
    const bool fast = FLT_IS_FASTIO_OPERATION(&shown.Data);
    const bool withCallback =
        decision.Status == FLT_PREOP_SUCCESS_WITH_CALLBACK || decision.Status == FLT_PREOP_SYNCHRONIZE;
    bool legal = false;
    switch (decision.Status)
    {
    case FLT_PREOP_SUCCESS_WITH_CALLBACK:
        legal = callbacks.PostOperation != nullptr;
        break;
    case FLT_PREOP_SYNCHRONIZE:
        legal = callbacks.PostOperation != nullptr && !fast;
        break;
    case FLT_PREOP_DISALLOW_FASTIO:
        legal = fast;
        break;
    case FLT_PREOP_SUCCESS_NO_CALLBACK:
        legal = true;
        break;
    case FLT_PREOP_COMPLETE:
        legal =
            shown.Data.IoStatus.Status != STATUS_PENDING && shown.Data.IoStatus.Status != STATUS_FLT_DISALLOW_FAST_IO;
        break;
    case FLT_PREOP_PENDING:
        BugCheck("NOT_MODELLED", "a pre-operation callback that pends the operation");
    }
    if (!legal)
    {
        BugCheck("FLT_PREOP_STATUS", "pre-operation status %d is not allowed for %s of major function 0x%x",
            static_cast<int>(decision.Status), fast ? "fast I/O" : "a request", shown.Block.MajorFunction);
    }
    if (decision.Context != nullptr && !withCallback)
    {
        BugCheck("FLT_COMPLETION_CONTEXT", "a completion context was left for a callback that will not be called");
    }
}

Decision CallPre(ShownOperation& shown, const FLT_RELATED_OBJECTS& related, const FLT_OPERATION_REGISTRATION& callbacks)
{
    const UCHAR major = shown.Block.MajorFunction;
    const PMDL callersMdl = MdlOf(shown.Block);
    Decision decision;
    {
        const CallbackRules rules("pre-operation");
        decision.Status = callbacks.PreOperation(&shown.Data, &related, &decision.Context);
        rules.Check();
    }
    if (shown.Block.MajorFunction != major || shown.Block.TargetInstance != shown.Instance)
    {
        BugCheck("FLT_PARAMETERS", "the filter changed the major function or the target instance");
    }
    CheckDecision(decision, shown, callbacks);
    const PMDL mdl = MdlOf(shown.Block);
    if (shown.Data.Flags & FLTFL_CALLBACK_DATA_DIRTY && decision.Status != FLT_PREOP_COMPLETE && mdl != callersMdl &&
        mdl != nullptr)
    {
        if (!IsLiveMdl(mdl))
        {
            BugCheck("FLT_SWAPPED_MDL", "the filter put %p in place of the MDL", static_cast<void*>(mdl));
        }
        decision.SwappedMdl = mdl;
    }
    return decision;
}

// Where the completion of paging and non-cached I/O arrives. The filter manager takes a create's completion back to
// its requestor, and anything that the filter wants synchronised.
KIRQL CompletionIrql(const FLT_IO_PARAMETER_BLOCK& block, FLT_PREOP_CALLBACK_STATUS status)
{
    const bool transfer = block.MajorFunction == IRP_MJ_READ || block.MajorFunction == IRP_MJ_WRITE;
    if (!transfer || !(block.IrpFlags & UncachedFlags) || status == FLT_PREOP_SYNCHRONIZE)
    {
        return CurrentIrql();
    }
    return std::max(CurrentIrql(), Model().CompletionIrql);
}

void CallPost(ShownOperation& shown, const FLT_RELATED_OBJECTS& related, const FLT_OPERATION_REGISTRATION& callbacks,
    const Decision& decision)
{
    const NTSTATUS before = shown.Data.IoStatus.Status;
    FLT_POSTOP_CALLBACK_STATUS result;
    {
        const RaisedIrql raised(CompletionIrql(shown.Block, decision.Status));
        const CallbackRules rules("post-operation");
        result = callbacks.PostOperation(&shown.Data, &related, decision.Context, 0);
        rules.Check();
    }
    if (result != FLT_POSTOP_FINISHED_PROCESSING)
    {
        BugCheck("NOT_MODELLED", "post-operation status %d", static_cast<int>(result));
    }
    if (shown.Block.MajorFunction == IRP_MJ_CREATE && NT_SUCCESS(before) && !NT_SUCCESS(shown.Data.IoStatus.Status))
    {
        BugCheck("FLT_CREATE_NOT_CANCELLED", "the filter failed a create whose file is open below it");
    }
}

NTSTATUS SendFiltered(FileRequest& request, PFLT_INSTANCE instance, IO_STATUS_BLOCK* status)
{
    const FLT_OPERATION_REGISTRATION& callbacks = instance->Filter->Operations[request.Parameters.MajorFunction];
    const FLT_RELATED_OBJECTS related = RelatedObjects(instance, request.Parameters.TargetFileObject);
    Thread* requestor = request.Requestor != nullptr ? request.Requestor : CurrentThread();
    FLT_IO_PARAMETER_BLOCK callers = request.Parameters;
    callers.TargetInstance = instance;
    ShownOperation shown{ShownSignature, instance, callers,
        {request.DataFlags, AsThread(requestor), &shown.Block, {}, nullptr, {}, request.Mode}};

    Decision decision;
    if (callbacks.PreOperation != nullptr)
    {
        decision = CallPre(shown, related, callbacks);
    }
    if (decision.Status == FLT_PREOP_DISALLOW_FASTIO)
    {
        shown.Data.IoStatus = {{STATUS_FLT_DISALLOW_FAST_IO}, 0};
    }
    else if (decision.Status != FLT_PREOP_COMPLETE)
    {
        // Changes that the filter did not announce are lost.
        const bool changed = shown.Data.Flags & FLTFL_CALLBACK_DATA_DIRTY;
        SendToFileSystem(request.Target, changed ? shown.Block : callers, &shown.Data.IoStatus);
        // The callback sees what the caller asked for, not what it made of it before.
        shown.Block = callers;
        shown.Data.Flags = (request.DataFlags & ~FLTFL_CALLBACK_DATA_DIRTY) | FLTFL_CALLBACK_DATA_POST_OPERATION;
        if (callbacks.PostOperation != nullptr && decision.Status != FLT_PREOP_SUCCESS_NO_CALLBACK)
        {
            CallPost(shown, related, callbacks, decision);
        }
    }
    if (decision.SwappedMdl != nullptr)
    {
        ReleaseMdl(decision.SwappedMdl);
    }
    *status = shown.Data.IoStatus;
    shown.Signature = 0;
    return status->Status;
}
}

NTSTATUS SendThroughFilter(FileRequest& request, IO_STATUS_BLOCK* status)
{
    const UCHAR major = request.Parameters.MajorFunction;
    const InstanceInUse use(request.Target);
    const PFLT_INSTANCE instance = use.Instance();
    if (instance == nullptr || major > IRP_MJ_MAXIMUM_FUNCTION)
    {
        return SendToFileSystem(request.Target, request.Parameters, status);
    }
    // A create is shown in the process that asks for it.
    std::optional<AttachedProcess> requestor;
    if (major == IRP_MJ_CREATE && request.Requestor != nullptr && request.Requestor->Owner != CurrentProcess())
    {
        requestor.emplace(request.Requestor->Owner);
    }
    return SendFiltered(request, instance, status);
}
}
