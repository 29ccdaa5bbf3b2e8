// The filter's life: registration, instances, unloading.
#include "hosted/flt/filter_state.h"

#include "hosted/flt/filter_callback.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace hosted
{
namespace
{
constexpr NTSTATUS FilterNotFound = static_cast<NTSTATUS>(0xC01C0013);
constexpr NTSTATUS DoNotDetach = static_cast<NTSTATUS>(0xC01C0010);
constexpr ULONG FilterSignature = 'rFtF';
constexpr ULONG InstanceSignature = 'nItF';
constexpr FLT_INSTANCE_SETUP_FLAGS AutomaticAttachment = 0x1;
constexpr FLT_INSTANCE_SETUP_FLAGS NewlyMountedVolume = 0x4;

struct Manager
{
    // Held while instances are set up or torn down; callbacks run under it, so it is never wanted inside one.
    std::mutex Setup;
    // Guards everything below and the records' own fields; never held across a callback.
    std::mutex Lock;
    std::condition_variable Idle;
    std::unique_ptr<_FLT_FILTER> Filter;
    // Of the last filter that registered and was not unloaded since.
    PFLT_FILTER_UNLOAD_CALLBACK LastUnload = nullptr;
    std::vector<Volume*> Volumes;
};

Manager& TheManager()
{
    static auto& manager = *new Manager;
    return manager;
}

FLT_FILESYSTEM_TYPE FilesystemType(const Volume& volume)
{
    // The only file system modelled is that of local disks; other kinds of volume exist to be refused.
    return volume.DeviceKind == FILE_DEVICE_DISK_FILE_SYSTEM ? FLT_FSTYPE_NTFS : FLT_FSTYPE_UNKNOWN;
}

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

// The setup lock is held.
void SetUpInstance(PFLT_FILTER filter, Volume* volume, FLT_INSTANCE_SETUP_FLAGS flags)
{
    auto instance = std::make_unique<_FLT_INSTANCE>();
    instance->Signature = InstanceSignature;
    instance->Filter = filter;
    instance->Volume = volume;
    if (filter->Registration.InstanceSetupCallback != nullptr)
    {
        const FLT_RELATED_OBJECTS related = RelatedObjects(instance.get(), nullptr);
        const CallbackRules rules("instance setup");
        const NTSTATUS status =
            filter->Registration.InstanceSetupCallback(&related, flags, volume->DeviceKind, FilesystemType(*volume));
        rules.Check();
        if (!NT_SUCCESS(status))
        {
            TearDownContexts(instance.get());
            return;
        }
    }
    std::lock_guard guard(TheManager().Lock);
    filter->Instances[volume] = std::move(instance);
}

// Waits until no operation is inside the instance, and removes it. The setup lock is held.
void TearDownInstance(PFLT_FILTER filter, Volume* volume)
{
    std::unique_ptr<_FLT_INSTANCE> instance;
    {
        std::unique_lock guard(TheManager().Lock);
        const auto found = filter->Instances.find(volume);
        if (found == filter->Instances.end())
        {
            return;
        }
        PFLT_INSTANCE leaving = found->second.get();
        leaving->Closing = true;
        TheManager().Idle.wait(guard, [leaving] { return leaving->Running == 0; });
        instance = std::move(found->second);
        filter->Instances.erase(found);
    }
    TearDownContexts(instance.get());
    instance->Signature = 0;
}

void RequireOutsideCallbacks(const char* what)
{
    if (InsideCallback())
    {
        BugCheck("FLT_WAIT_IN_CALLBACK", "%s waits for callbacks to end, and was called from one", what);
    }
}
}

FLT_RELATED_OBJECTS RelatedObjects(PFLT_INSTANCE instance, PFILE_OBJECT file)
{
    return {sizeof(FLT_RELATED_OBJECTS), 0, instance->Filter, AsFltVolume(instance->Volume), instance, file, nullptr};
}

void RequireFilter(PFLT_FILTER filter, const char* routine)
{
    if (filter == nullptr || filter->Signature != FilterSignature)
    {
        BugCheck("FLT_BAD_OBJECT", "%s: %p is no filter", routine, static_cast<void*>(filter));
    }
}

void RequireInstance(PFLT_INSTANCE instance, const char* routine)
{
    if (instance == nullptr || instance->Signature != InstanceSignature)
    {
        BugCheck("FLT_BAD_OBJECT", "%s: %p is no instance", routine, static_cast<void*>(instance));
    }
}

InstanceInUse::InstanceInUse(Volume* volume)
{
    Manager& manager = TheManager();
    std::lock_guard guard(manager.Lock);
    if (manager.Filter == nullptr)
    {
        return;
    }
    const auto found = manager.Filter->Instances.find(volume);
    if (found != manager.Filter->Instances.end() && !found->second->Closing)
    {
        instance_ = found->second.get();
        ++instance_->Running;
    }
}

InstanceInUse::~InstanceInUse()
{
    if (instance_ == nullptr)
    {
        return;
    }
    Manager& manager = TheManager();
    std::lock_guard guard(manager.Lock);
    if (--instance_->Running == 0 && instance_->Closing)
    {
        manager.Idle.notify_all();
    }
}

void FilterVolumeMounted(Volume* volume)
{
    Manager& manager = TheManager();
    std::lock_guard setup(manager.Setup);
    PFLT_FILTER filter = nullptr;
    {
        std::lock_guard guard(manager.Lock);
        manager.Volumes.push_back(volume);
        if (manager.Filter != nullptr && manager.Filter->Filtering)
        {
            filter = manager.Filter.get();
        }
    }
    if (filter != nullptr)
    {
        SetUpInstance(filter, volume, AutomaticAttachment | NewlyMountedVolume);
    }
}

void FilterVolumeDismounted(Volume* volume)
{
    RequireOutsideCallbacks("dismounting a volume");
    Manager& manager = TheManager();
    std::lock_guard setup(manager.Setup);
    PFLT_FILTER filter;
    {
        std::lock_guard guard(manager.Lock);
        std::erase(manager.Volumes, volume);
        filter = manager.Filter.get();
    }
    if (filter != nullptr)
    {
        TearDownInstance(filter, volume);
    }
}

bool HasInstance(Volume* volume)
{
    return InstanceInUse(volume).Instance() != nullptr;
}

NTSTATUS UnloadFilter()
{
    RequireIrql(PASSIVE_LEVEL, "UnloadFilter");
    Manager& manager = TheManager();
    PFLT_FILTER_UNLOAD_CALLBACK unload;
    {
        std::lock_guard guard(manager.Lock);
        if (manager.Filter == nullptr)
        {
            return FilterNotFound;
        }
        unload = manager.Filter->Registration.FilterUnloadCallback;
    }
    if (unload == nullptr)
    {
        return DoNotDetach;
    }
    const CallbackRules rules("filter unload", CallbackRules::MayWait);
    const NTSTATUS status = unload(0);
    rules.Check();
    std::lock_guard guard(manager.Lock);
    if (NT_SUCCESS(status) && manager.Filter != nullptr)
    {
        BugCheck("FLT_UNLOADED_REGISTERED", "the filter unloaded without having unregistered");
    }
    manager.LastUnload = NT_SUCCESS(status) ? nullptr : manager.LastUnload;
    return status;
}

NTSTATUS UnloadWithoutFilter()
{
    RequireIrql(PASSIVE_LEVEL, "UnloadWithoutFilter");
    Manager& manager = TheManager();
    PFLT_FILTER_UNLOAD_CALLBACK unload;
    {
        std::lock_guard guard(manager.Lock);
        if (manager.Filter != nullptr || manager.LastUnload == nullptr)
        {
            return FilterNotFound;
        }
        unload = std::exchange(manager.LastUnload, nullptr);
    }
    const CallbackRules rules("filter unload", CallbackRules::MayWait);
    const NTSTATUS status = unload(0);
    rules.Check();
    return status;
}

void ForgetLastUnload()
{
    std::lock_guard guard(TheManager().Lock);
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
    std::lock_guard guard(TheManager().Lock);
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
    Manager& manager = TheManager();
    std::lock_guard setup(manager.Setup);
    std::vector<Volume*> volumes;
    {
        std::lock_guard guard(manager.Lock);
        if (Filter->Filtering || Filter->Closing)
        {
            return STATUS_INVALID_PARAMETER;
        }
        Filter->Filtering = true;
        volumes = manager.Volumes;
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
    Manager& manager = TheManager();
    std::lock_guard setup(manager.Setup);
    {
        std::lock_guard guard(manager.Lock);
        Filter->Filtering = false;
        Filter->Closing = true;
        for (auto& [volume, instance] : Filter->Instances)
        {
            instance->Closing = true;
        }
    }
    while (!Filter->Instances.empty())
    {
        TearDownInstance(Filter, Filter->Instances.begin()->first);
    }
    // Windows waits for these for ever.
    const std::string held = DescribeContexts(Filter);
    if (!held.empty())
    {
        BugCheck("FLT_CONTEXTS_OUTSTANDING", "unregistered while somebody holds %s", held.c_str());
    }
    std::unique_ptr<_FLT_FILTER> gone;
    std::lock_guard guard(manager.Lock);
    gone = std::move(manager.Filter);
    gone->Signature = 0;
}
