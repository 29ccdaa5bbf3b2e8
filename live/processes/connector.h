// The kernel's process connector: it tells of each fork, exec and exit.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace hosted
{
struct ConnectorEvent
{
    enum class Kind
    {
        Fork, // Thread began, in Process; it is a new process when the two are the same, the child of Parent
        Exec, // Process runs another image, on its first thread
        Exit, // Thread ended, in Process
    };
    Kind What;
    uint64_t Time; // ns of CLOCK_MONOTONIC; what happened had its effect by then
    pid_t Thread;
    pid_t Process;
    pid_t Parent;
    bool AfterLoss; // the kernel had no memory for events before this one; only /proc can tell what they were
};

// The kernel queues the event of a fork before the child runs and that of an exec before the new image runs, into the
// socket of each listener. What is queued when a process does something thus tells how it came to be. An exit is queued
// a moment after the parent can know of it.
class Connector
{
public:
    enum class Result
    {
        Received,
        Empty,
        Overrun, // events are lost, and none is queued any more until what is queued has been received
    };

    // Null where the kernel offers no connector, where it is not allowed, and where it does not tell of this process by
    // the id and the clock that this process has: in a namespace of its own. The kernel doubles the buffer's length.
    static std::unique_ptr<Connector> Open(int receiveBufferBytes);
    ~Connector();
    Connector(const Connector&) = delete;
    Connector& operator=(const Connector&) = delete;

    // Never waits.
    Result Receive(ConnectorEvent* event);
    // Readable while events are queued.
    int Descriptor() const { return socket_; }

private:
    explicit Connector(int socket) : socket_(socket) {}
    bool Listen(bool listen);
    bool TellsOfThisProcess();
    bool IsNext(uint32_t processor, uint32_t sequence);

    const int socket_;
    bool overrun_ = false;                                // and not empty since
    bool gap_ = false;                                    // before the event that is received next
    std::unordered_map<uint32_t, uint32_t> nextSequence_; // by processor
};

// CLOCK_MONOTONIC in ns.
uint64_t MonotonicNow();
}
