// The one state of the filter manager, and the setting up and tearing down of instances.
#pragma once

#include "hosted/flt/filter_state.h"

namespace hosted
{
struct Manager
{
    common::Condition Idle; // an instance that is going has no operation inside it any more
    std::unique_ptr<_FLT_FILTER> Filter GUARDED_BY(filterLock);
    // Of the last filter that registered and was not unloaded since.
    PFLT_FILTER_UNLOAD_CALLBACK LastUnload GUARDED_BY(filterLock) = nullptr;
    std::vector<Volume*> Volumes GUARDED_BY(filterLock);
};
Manager& TheManager();

// What an instance's setup callback is told.
constexpr FLT_INSTANCE_SETUP_FLAGS AutomaticAttachment = 0x1;
constexpr FLT_INSTANCE_SETUP_FLAGS NewlyMountedVolume = 0x4;

// Attaches the filter to the volume, unless its setup callback refuses.
void SetUpInstance(PFLT_FILTER filter, Volume* volume, FLT_INSTANCE_SETUP_FLAGS flags) REQUIRES_LOCK(filterSetupLock);
// Waits until no operation is inside the instance, and removes it. Nothing happens when there is none.
void TearDownInstance(PFLT_FILTER filter, Volume* volume) REQUIRES_LOCK(filterSetupLock);

// Bug check inside a callback: `what` waits for callbacks to end.
void RequireOutsideCallbacks(const char* what);
}
