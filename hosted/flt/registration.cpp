// The filter's life: registration, start, unloading.
#include "hosted/flt/manager.h"

#include "hosted/flt/filter_callback.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <algorithm>
#include <utility>

namespace hosted
{
namespace
{
constexpr NTSTATUS FilterNotFound = static_cast<NTSTATUS>(0xC01C0013);
constexpr NTSTATUS DoNotDetach = static_cast<NTSTATUS>(0xC01C0010);
constexpr ULONG FilterSignature = 'rFtF';

NTSTATUS CopyContexts(const FLT_CONTEXT_REGISTRATION* entry, _FLT_FILTER* filter)
{
    for (; entry != nullptr && entry->ContextType != FLT_CONTEXT_END; ++entry)
    {
        const bool repeated = std::any_of(filter->Contexts.begin(), filter->Contexts.end(),
            [entry](const auto& other) { return other.ContextType == entry->ContextType; });
        if (entry->ContextType != FLT_STREAM_CONTEXT || entry->Size == 0 || repeated)
        {
            return STATUS_FLT_INVALID_CONTEXT_REGISTRATION;
        }
        if (entry->Flags != 0 || entry->ContextAllocateCallback != nullptr || entry->ContextFreeCallback != nullptr)
        {
            BugCheck("NOT_MODELLED", "FltRegisterFilter: flags or allocation callbacks of a context");
        }
        filter->Contexts.push_back(*entry);
    }
    return STATUS_SUCCESS;
}

NTSTATUS CopyOperations(const FLT_OPERATION_REGISTRATION* entry, _FLT_FILTER* filter)
{
    for (; entry != nullptr && entry->MajorFunction != IRP_MJ_OPERATION_END; ++entry)
    {
        if (entry->MajorFunction > IRP_MJ_MAXIMUM_FUNCTION)
        {
            return STATUS_INVALID_PARAMETER;
        }
        FLT_OPERATION_REGISTRATION& slot = filter->Operations[entry->MajorFunction];
        const bool repeated = slot.PreOperation != nullptr || slot.PostOperation != nullptr;
        if (repeated || (entry->PreOperation == nullptr && entry->PostOperation == nullptr))
        {
            return STATUS_INVALID_PARAMETER;
        }
        if (entry->Flags != 0)
        {
            BugCheck(
                "NOT_MODELLED", "FltRegisterFilter: an operation that skips kinds of I/O (flags 0x%x)", entry->Flags);
        }
        slot = *entry;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CopyRegistration(const FLT_REGISTRATION* registration, _FLT_FILTER* filter)
{
    if (registration->Version != FLT_REGISTRATION_VERSION_0202 || registration->Size != sizeof(FLT_REGISTRATION))
    {
        return STATUS_INVALID_PARAMETER;
    }
    filter->Registration = *registration;
    filter->Registration.ContextRegistration = nullptr;
    filter->Registration.OperationRegistration = nullptr;
    const NTSTATUS status = CopyContexts(registration->ContextRegistration, filter);
    return NT_SUCCESS(status) ? CopyOperations(registration->OperationRegistration, filter) : status;
}

// A volume that the filter is still attached to; null when there is none left.
Volume* AnyAttachedVolume(PFLT_FILTER filter)
{
    common::Guard guard(filterLock);
    return filter->Instances.empty() ? nullptr : filter->Instances.begin()->first;
}
}

void RequireFilter(PFLT_FILTER filter, const char* routine)
{
    if (filter == nullptr || filter->Signature != FilterSignature)
    {
        BugCheck("FLT_BAD_OBJECT", "%s: %p is no filter", routine, static_cast<void*>(filter));
    }
}

NTSTATUS UnloadFilter()
{
    RequireIrql(PASSIVE_LEVEL, "UnloadFilter");
    PFLT_FILTER_UNLOAD_CALLBACK unload;
    {
        common::Guard guard(filterLock);
        if (TheManager().Filter == nullptr)
        {
            return FilterNotFound;
        }
        unload = TheManager().Filter->Registration.FilterUnloadCallback;
    }
    if (unload == nullptr)
    {
        return DoNotDetach;
    }
    const CallbackRules rules("filter unload", CallbackRules::MayWait);
    const NTSTATUS status = unload(0);
    rules.Check();
    common::Guard guard(filterLock);
    if (NT_SUCCESS(status) && TheManager().Filter != nullptr)
    {
        BugCheck("FLT_UNLOADED_REGISTERED", "the filter unloaded without having unregistered");
    }
    TheManager().LastUnload = NT_SUCCESS(status) ? nullptr : TheManager().LastUnload;
    return status;
}

NTSTATUS UnloadWithoutFilter()
{
    RequireIrql(PASSIVE_LEVEL, "UnloadWithoutFilter");
    PFLT_FILTER_UNLOAD_CALLBACK unload;
    {
        common::Guard guard(filterLock);
        if (TheManager().Filter != nullptr || TheManager().LastUnload == nullptr)
        {
            return FilterNotFound;
        }
        unload = std::exchange(TheManager().LastUnload, nullptr);
    }
    const CallbackRules rules("filter unload", CallbackRules::MayWait);
    const NTSTATUS status = unload(0);
    rules.Check();
    return status;
}

void ForgetLastUnload()
{
    common::Guard guard(filterLock);
    TheManager().LastUnload = nullptr;
}

std::string DescribeLiveFilterObjects()
{
    std::string text = DescribeContexts(nullptr);
    const std::string names = DescribeNames();
    text += text.empty() || names.empty() ? "" : ", ";
    return text + names;
}
}

using namespace hosted;

extern "C" NTSTATUS NTAPI FltRegisterFilter(
    PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration, PFLT_FILTER* RetFilter)
{
    RequireIrql(APC_LEVEL, "FltRegisterFilter");
    if (InjectFailure("FltRegisterFilter"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (Driver == nullptr || Registration == nullptr || RetFilter == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    auto filter = std::make_unique<_FLT_FILTER>();
    filter->Signature = FilterSignature;
    filter->Driver = Driver;
    const NTSTATUS status = CopyRegistration(Registration, filter.get());
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    common::Guard guard(filterLock);
    if (TheManager().Filter != nullptr)
    {
        // One filter is all that is modelled; a second registration meets the first one's name.
        return STATUS_OBJECT_NAME_COLLISION;
    }
    *RetFilter = filter.get();
    TheManager().LastUnload = filter->Registration.FilterUnloadCallback;
    TheManager().Filter = std::move(filter);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI FltStartFiltering(PFLT_FILTER Filter)
{
    RequireIrql(APC_LEVEL, "FltStartFiltering");
    RequireFilter(Filter, "FltStartFiltering");
    if (InjectFailure("FltStartFiltering"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    common::Guard setup(filterSetupLock);
    std::vector<Volume*> volumes;
    {
        common::Guard guard(filterLock);
        if (Filter->Filtering || Filter->Closing)
        {
            return STATUS_INVALID_PARAMETER;
        }
        Filter->Filtering = true;
        volumes = TheManager().Volumes;
    }
    for (Volume* volume : volumes)
    {
        SetUpInstance(Filter, volume, AutomaticAttachment);
    }
    return STATUS_SUCCESS;
}

extern "C" void NTAPI FltUnregisterFilter(PFLT_FILTER Filter)
{
    RequireIrql(PASSIVE_LEVEL, "FltUnregisterFilter");
    RequireFilter(Filter, "FltUnregisterFilter");
    RequireOutsideCallbacks("FltUnregisterFilter");
    common::Guard setup(filterSetupLock);
    {
        common::Guard guard(filterLock);
        Filter->Filtering = false;
        Filter->Closing = true;
        for (auto& [volume, instance] : Filter->Instances)
        {
            instance->Closing = true;
        }
    }
    while (Volume* volume = AnyAttachedVolume(Filter))
    {
        TearDownInstance(Filter, volume);
    }
    // Windows waits for these for ever.
    const std::string held = DescribeContexts(Filter);
    if (!held.empty())
    {
        BugCheck("FLT_CONTEXTS_OUTSTANDING", "unregistered while somebody holds %s", held.c_str());
    }
    std::unique_ptr<_FLT_FILTER> gone;
    common::Guard guard(filterLock);
    gone = std::move(TheManager().Filter);
    gone->Signature = 0;
}
