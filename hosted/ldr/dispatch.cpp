#include "hosted/ldr/dispatch.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ldr/image_faults.h"
#include "hosted/ldr/loaded_image.h"
#include "hosted/ldr/unwind.h"

namespace hosted
{
namespace
{
// The exception that this thread is looking for a handler for.
struct Dispatch
{
    ExceptionRecord Record;
    ProcessorContext Start;
    Dispatch* Outer;
    size_t CallOuts;
};

thread_local Dispatch* current = nullptr;

// One guarded range of a function, as its handler data lists them.
struct Scope
{
    ULONG Begin;
    ULONG End;
    ULONG Handler; // a filter or termination routine; 1: handled without a question
    ULONG Target;  // where to go on; 0 for a termination handler
};

struct ScopeTable
{
    ULONG Count;
    Scope Scopes[1];
};

// What a filter answers to have its handler run.
constexpr LONG ExecuteHandler = 1;

typedef LONG(NTAPI* Filter)(ExceptionPointers* pointers, PVOID frame);
typedef void(NTAPI* Termination)(BOOLEAN abnormal, PVOID frame);

// The frame at the registers; they become the caller's. False at the image's edge.
bool Step(ULONG wanted, ProcessorContext* context, DispatcherContext* frame)
{
    const LoadedImage* image = LoadedImage::At(context->Rip);
    if (image == nullptr)
    {
        return false;
    }
    const ImageLayout& layout = image->Layout();
    *frame = {};
    frame->ControlPc = context->Rip;
    frame->ImageBase = reinterpret_cast<ULONGLONG>(image->Base());
    frame->Function = FindFunction(image->Base(), layout.UnwindTable, layout.UnwindBytes, context->Rip);
    if (frame->Function == nullptr)
    {
        UnwindLeaf(context);
        return true;
    }
    const UnwoundFrame unwound = UnwindFrame(wanted, frame->ImageBase, frame->ControlPc, frame->Function, context);
    frame->EstablisherFrame = unwound.EstablisherFrame;
    frame->Handler = unwound.Handler;
    frame->HandlerData = unwound.HandlerData;
    return true;
}

// Runs the termination handlers up to the frame that handles the exception, and goes on there.
[[noreturn]] void UnwindTo(ULONGLONG targetFrame, ULONGLONG targetIp)
{
    Dispatch* dispatch = current;
    ProcessorContext context = dispatch->Start;
    for (;;)
    {
        ProcessorContext caller = context;
        DispatcherContext frame;
        if (!Step(TerminationHandler, &caller, &frame))
        {
            BugCheck("unwind-lost", "the frame that handles an exception was not found again");
        }
        const bool isTarget = frame.EstablisherFrame == targetFrame;
        dispatch->Record.Flags = ExceptionUnwinding | (isTarget ? ExceptionTargetUnwind : 0);
        if (frame.Handler != nullptr)
        {
            frame.TargetIp = targetIp;
            frame.Context = &context;
            const auto establisher = reinterpret_cast<PVOID>(frame.EstablisherFrame);
            if (frame.Handler(&dispatch->Record, establisher, &context, &frame) != ContinueSearch)
            {
                BugCheck("unwind-refused", "a termination handler wants something else than to go on");
            }
        }
        if (isTarget)
        {
            break;
        }
        context = caller;
    }
    context.Rip = targetIp;
    // Where the code of the handler finds the status.
    context.Integer[Rax] = static_cast<ULONG>(dispatch->Record.Code);
    current = dispatch->Outer;
    TrimCallOuts(dispatch->CallOuts);
    ContinueAt(context);
}

bool Covers(const Scope& scope, ULONGLONG offset)
{
    return offset >= scope.Begin && offset < scope.End;
}

int SearchScopes(ExceptionRecord* record, ULONGLONG frame, ProcessorContext* context, const DispatcherContext& at)
{
    const auto table = static_cast<const ScopeTable*>(at.HandlerData);
    const ULONGLONG offset = at.ControlPc - at.ImageBase;
    for (ULONG i = at.ScopeIndex; i < table->Count; ++i)
    {
        const Scope& scope = table->Scopes[i];
        if (!Covers(scope, offset) || scope.Target == 0)
        {
            continue;
        }
        LONG answer = ExecuteHandler;
        if (scope.Handler != 1)
        {
            ExceptionPointers pointers = {record, context};
            answer = reinterpret_cast<Filter>(at.ImageBase + scope.Handler)(&pointers, reinterpret_cast<PVOID>(frame));
        }
        if (answer < 0)
        {
            return ContinueExecution;
        }
        if (answer > 0)
        {
            UnwindTo(frame, at.ImageBase + scope.Target);
        }
    }
    return ContinueSearch;
}

// The target's own range and those outside it stay as they are.
bool HoldsTarget(const ScopeTable& table, const Scope& scope, ULONGLONG targetOffset)
{
    for (ULONG i = 0; i < table.Count; ++i)
    {
        const Scope& other = table.Scopes[i];
        if (Covers(other, targetOffset) && other.Handler == scope.Handler && other.Target == scope.Target)
        {
            return true;
        }
    }
    return false;
}

void RunTerminations(bool isTarget, ULONGLONG frame, DispatcherContext* at)
{
    const auto table = static_cast<const ScopeTable*>(at->HandlerData);
    const ULONGLONG offset = at->ControlPc - at->ImageBase;
    const ULONGLONG targetOffset = at->TargetIp - at->ImageBase;
    for (ULONG i = at->ScopeIndex; i < table->Count; ++i)
    {
        const Scope& scope = table->Scopes[i];
        if (!Covers(scope, offset))
        {
            continue;
        }
        const bool handles = scope.Target != 0 && scope.Target == targetOffset;
        if (isTarget && (handles || HoldsTarget(*table, scope, targetOffset)))
        {
            return;
        }
        if (scope.Target == 0)
        {
            // Should it fault itself, the search goes on behind it.
            at->ScopeIndex = i + 1;
            reinterpret_cast<Termination>(at->ImageBase + scope.Handler)(TRUE, reinterpret_cast<PVOID>(frame));
        }
    }
}
}

void DispatchException(NTSTATUS status, const void* address, const ProcessorContext& start)
{
    Dispatch dispatch = {};
    dispatch.Record.Code = status;
    dispatch.Record.Address = reinterpret_cast<PVOID>(start.Rip);
    dispatch.Record.ParameterCount = 2;
    dispatch.Record.Parameters[1] = reinterpret_cast<ULONG_PTR>(address);
    dispatch.Start = start;
    dispatch.Outer = current;
    dispatch.CallOuts = CallOutDepth();
    current = &dispatch;

    ProcessorContext context = start;
    DispatcherContext frame;
    while (Step(ExceptionHandler, &context, &frame))
    {
        if (frame.Handler == nullptr)
        {
            continue;
        }
        frame.Context = &context;
        const auto establisher = reinterpret_cast<PVOID>(frame.EstablisherFrame);
        if (frame.Handler(&dispatch.Record, establisher, &dispatch.Start, &frame) != ContinueSearch)
        {
            BugCheck("exception-continued", "a filter wants to repeat the access at %p", dispatch.Record.Address);
        }
    }
    current = dispatch.Outer;
}

bool IsHandlerRoutine(const char* name)
{
    return std::string_view(name) == "__C_specific_handler" || std::string_view(name) == "RtlVirtualUnwind";
}
}

extern "C" int NTAPI KernelCSpecificHandler(PVOID record, PVOID frame, PVOID context, PVOID dispatcher)
{
    using namespace hosted;
    const auto at = static_cast<DispatcherContext*>(dispatcher);
    const auto exception = static_cast<ExceptionRecord*>(record);
    if ((exception->Flags & ExceptionUnwinding) == 0)
    {
        return SearchScopes(
            exception, reinterpret_cast<ULONGLONG>(frame), static_cast<ProcessorContext*>(context), *at);
    }
    RunTerminations((exception->Flags & ExceptionTargetUnwind) != 0, reinterpret_cast<ULONGLONG>(frame), at);
    return ContinueSearch;
}
