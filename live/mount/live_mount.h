// The mounted folder.
#pragma once

#include "live/mount/mount_state.h"

#include <condition_variable>
#include <mutex>
#include <string>

struct fuse_session;

namespace live
{
class LiveMount
{
public:
    // Mounts on the folder, which is there. Throws std::runtime_error. `state` outlives the mount.
    LiveMount(MountState& state, const std::string& folder);
    // Unmounts, if nobody has done so yet, and closes what programs left open.
    ~LiveMount();
    LiveMount(const LiveMount&) = delete;
    LiveMount& operator=(const LiveMount&) = delete;

    // Serves the volume with several threads until it is unmounted or End is called.
    void Serve();
    // Has the host's kernel write what it still keeps, then unmounts; programs that have files open lose them. From any
    // thread while Serve runs.
    void End();

private:
    void ServeRequests();

    MountState& state_;
    const std::string folder_;
    fuse_session* session_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned ended_ = 0; // threads; guarded by mutex_
};
}
