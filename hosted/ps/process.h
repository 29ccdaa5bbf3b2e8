// Processes and threads as the driver and the rest of the hosted kernel see them.
#pragma once

#include "hosted/ob/handle_table.h"

namespace hosted
{
struct Process
{
    HANDLE Id;
    HANDLE ParentId;
    LONGLONG CreateTime;      // 100 ns units
    WideString ImageNtPath;   // as ProcessImageFileName answers, e.g. "\Device\HarddiskVolume1\Apps\Editor.exe"
    WideString ImageFileName; // the bare name, as process snapshots show it
    HandleTable Handles{false};
    bool Exited = false;
};

struct Thread
{
    HANDLE Id;
    Process* Owner; // referenced
};

extern const ObjectType ProcessType;
extern const ObjectType ThreadType;

// The process and thread that the calling Linux thread plays; the system process when it plays none. No reference.
Process* CurrentProcess();
Thread* CurrentThread();
Process* SystemProcess();

// Plays a process for a scope: what the calling Linux thread does in it is done by that process. Nests.
class AttachedProcess
{
public:
    explicit AttachedProcess(Process* process);
    ~AttachedProcess();
    AttachedProcess(const AttachedProcess&) = delete;
    AttachedProcess& operator=(const AttachedProcess&) = delete;

private:
    Thread* previous_;
    Thread* thread_;
};

inline PETHREAD AsThread(Thread* thread)
{
    return reinterpret_cast<PETHREAD>(thread);
}
inline Thread* FromThread(PETHREAD thread)
{
    return reinterpret_cast<Thread*>(thread);
}
inline PEPROCESS AsProcess(Process* process)
{
    return reinterpret_cast<PEPROCESS>(process);
}
inline Process* FromProcess(PEPROCESS process)
{
    return reinterpret_cast<Process*>(process);
}
}
