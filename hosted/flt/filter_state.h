// The filter manager's own records: the registered filter and its instances.
#pragma once

#include "common/mutex.h"
#include "hosted/flt/filter_manager.h"
#include "hosted/io/request.h"

#include <array>
#include <map>
#include <memory>
#include <vector>

namespace hosted
{
// Held while instances are set up or torn down; callbacks run under it, so it is never wanted inside one.
extern common::Mutex filterSetupLock;
// Never held across a callback.
extern common::Mutex filterLock;
}

// One attachment of the filter to a volume.
struct _FLT_INSTANCE
{
    ULONG Signature;
    PFLT_FILTER Filter;
    hosted::Volume* Volume;
    ULONG Running GUARDED_BY(hosted::filterLock) = 0; // operations on their way through this instance
    bool Closing GUARDED_BY(hosted::filterLock) = false;
};

struct _FLT_FILTER
{
    ULONG Signature;
    PDRIVER_OBJECT Driver;
    FLT_REGISTRATION Registration; // its pointers to records are not kept
    std::vector<FLT_CONTEXT_REGISTRATION> Contexts;
    std::array<FLT_OPERATION_REGISTRATION, IRP_MJ_MAXIMUM_FUNCTION + 1> Operations{};
    bool Filtering GUARDED_BY(hosted::filterLock) = false;
    bool Closing GUARDED_BY(hosted::filterLock) = false;
    std::map<hosted::Volume*, std::unique_ptr<_FLT_INSTANCE>> Instances GUARDED_BY(hosted::filterLock);
};

namespace hosted
{
inline PFLT_VOLUME AsFltVolume(Volume* volume)
{
    return reinterpret_cast<PFLT_VOLUME>(volume);
}
inline Volume* FromFltVolume(PFLT_VOLUME volume)
{
    return reinterpret_cast<Volume*>(volume);
}

FLT_RELATED_OBJECTS RelatedObjects(PFLT_INSTANCE instance, PFILE_OBJECT file);

// Bug check when the pointer is no filter or instance of this manager.
void RequireFilter(PFLT_FILTER filter, const char* routine);
void RequireInstance(PFLT_INSTANCE instance, const char* routine);

// Keeps the volume's instance from being torn down for a scope.
class InstanceInUse
{
public:
    explicit InstanceInUse(Volume* volume);
    ~InstanceInUse();
    InstanceInUse(const InstanceInUse&) = delete;
    InstanceInUse& operator=(const InstanceInUse&) = delete;

    // Null when the volume has none, or it is going away.
    PFLT_INSTANCE Instance() const { return instance_; }

private:
    PFLT_INSTANCE instance_ = nullptr;
};

// Pre-operation callbacks, the file system, post-operation callbacks; see SendFileRequest.
NTSTATUS SendThroughFilter(FileRequest& request, IO_STATUS_BLOCK* status);

// Detaches the instance's contexts from their streams and gives the streams' references up.
void TearDownContexts(PFLT_INSTANCE instance);
// Contexts of the filter that somebody still holds: "stream context 0x... with 2 references, ..."; "" when none.
std::string DescribeContexts(PFLT_FILTER filter);
std::string DescribeNames();
}
