// Who asks: the thread that serves a request plays the process of the program.
#pragma once

#include "live/mount/fuse_api.h"
#include "live/mount/mount_state.h"
#include "hosted/ps/process.h"

#include <optional>

namespace live
{
inline MountState& StateOf(fuse_req_t request)
{
    return *static_cast<MountState*>(fuse_req_userdata(request));
}

// For as long as it lives. Brings the processes up to date first, so that whatever the request needs a decision for is
// decided with everything known that happened to the program before it asked.
class Requester
{
public:
    explicit Requester(fuse_req_t request);
    ~Requester();
    Requester(const Requester&) = delete;
    Requester& operator=(const Requester&) = delete;

    // False: the program is in no process that can be told, and gets nothing.
    explicit operator bool() const { return process_ != nullptr; }

private:
    hosted::Process* process_; // referenced
    std::optional<hosted::AttachedProcess> attached_;
};
}
