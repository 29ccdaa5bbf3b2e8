// The filter's instances: one for each volume that it did not refuse.
#include "hosted/flt/manager.h"

#include "hosted/flt/filter_callback.h"
#include "hosted/ke/bug_check.h"

#include <utility>

namespace hosted
{
common::Mutex filterSetupLock;
common::Mutex filterLock;

namespace
{
constexpr ULONG InstanceSignature = 'nItF';

FLT_FILESYSTEM_TYPE FilesystemType(const Volume& volume)
{
    // The only file system modelled is that of local disks; other kinds of volume exist to be refused.
    return volume.DeviceKind == FILE_DEVICE_DISK_FILE_SYSTEM ? FLT_FSTYPE_NTFS : FLT_FSTYPE_UNKNOWN;
}

class FilterManager final : public VolumeFilters
{
public:
    NTSTATUS Send(FileRequest& request, IO_STATUS_BLOCK* status) override { return SendThroughFilter(request, status); }

    void VolumeMounted(Volume* volume) override
    {
        common::Guard setup(filterSetupLock);
        PFLT_FILTER filter = nullptr;
        {
            common::Guard guard(filterLock);
            TheManager().Volumes.push_back(volume);
            if (TheManager().Filter != nullptr && TheManager().Filter->Filtering)
            {
                filter = TheManager().Filter.get();
            }
        }
        if (filter != nullptr)
        {
            SetUpInstance(filter, volume, AutomaticAttachment | NewlyMountedVolume);
        }
    }

    void VolumeDismounted(Volume* volume) override
    {
        RequireOutsideCallbacks("dismounting a volume");
        common::Guard setup(filterSetupLock);
        PFLT_FILTER filter;
        {
            common::Guard guard(filterLock);
            std::erase(TheManager().Volumes, volume);
            filter = TheManager().Filter.get();
        }
        if (filter != nullptr)
        {
            TearDownInstance(filter, volume);
        }
    }
};

// From before main on every request takes its way through here.
FilterManager filterManager;
}

Manager& TheManager()
{
    static auto& manager = *new Manager;
    return manager;
}

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
    common::Guard guard(filterLock);
    filter->Instances[volume] = std::move(instance);
}

void TearDownInstance(PFLT_FILTER filter, Volume* volume)
{
    std::unique_ptr<_FLT_INSTANCE> instance;
    {
        common::Guard guard(filterLock);
        const auto found = filter->Instances.find(volume);
        if (found == filter->Instances.end())
        {
            return;
        }
        PFLT_INSTANCE leaving = found->second.get();
        leaving->Closing = true;
        while (leaving->Running != 0)
        {
            TheManager().Idle.Wait(filterLock);
        }
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

FLT_RELATED_OBJECTS RelatedObjects(PFLT_INSTANCE instance, PFILE_OBJECT file)
{
    return {sizeof(FLT_RELATED_OBJECTS), 0, instance->Filter, AsFltVolume(instance->Volume), instance, file, nullptr};
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
    common::Guard guard(filterLock);
    const auto& filter = TheManager().Filter;
    if (filter == nullptr)
    {
        return;
    }
    const auto found = filter->Instances.find(volume);
    if (found != filter->Instances.end() && !found->second->Closing)
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
    common::Guard guard(filterLock);
    if (--instance_->Running == 0 && instance_->Closing)
    {
        TheManager().Idle.NotifyAll();
    }
}

bool HasInstance(Volume* volume)
{
    return InstanceInUse(volume).Instance() != nullptr;
}
}
