// What every request of the mounted volume uses.
#pragma once

#include "common/mutex.h"
#include "live/mount/node_table.h"
#include "live/mount/opened_file.h"

#include <array>
#include <functional>

namespace hosted
{
struct Process;
}

namespace live
{
struct MountState
{
    // `volume`: the device, "\Device\HarddiskVolume2".
    explicit MountState(hosted::WideString volume) : Nodes(std::move(volume)) {}

    NodeTable Nodes;
    // Paths inside begin with it and a backslash; empty: there is no sandbox folder on this volume.
    hosted::WideString SandboxFolder;
    // The process of a thread of the host system, referenced; null when it cannot be told.
    std::function<hosted::Process*(pid_t thread)> ProcessOf;
    // New files belong to the program that made them; otherwise to whoever serves the volume.
    bool GivesOwnership = false;
    // Called once, when the host's kernel accepted the volume.
    std::function<void()> Ready;

    // Alone for who takes a name away or gives it to another file, until the node table knows; shared for who goes by a
    // name or a node until it has the file open. Not to be taken twice by one thread.
    common::FairSharedMutex Names;
    // Shared by who writes to a file, alone for who looks at its size to change it: what the host's kernel writes back
    // meanwhile must not be cut off. One for several files.
    common::FairSharedMutex& SizeLockOf(NodeId node) { return sizeLocks_[node % sizeLocks_.size()]; }

    // What is open on the volume, for looks at what a process has open, and for an end with files open.
    HandleSet Handles;
    // Files are added with Names held alone.
    NamelessFiles Nameless;

    // The host's kernel forgets as many look-ups.
    void Forget(NodeId node, std::uint64_t lookups)
    {
        if (Nodes.Forget(node, lookups))
        {
            Nameless.Drop(node);
        }
    }

private:
    std::array<common::FairSharedMutex, 64> sizeLocks_;
};
}
