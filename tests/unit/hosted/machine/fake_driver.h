// A driver just large enough for the machine: control device, link, filter without callbacks, notify routine.
#pragma once

#include <ntifs.h>

#include <fltkernel.h>

#include <string>
#include <vector>

namespace fake_driver
{
// What reached the control device.
struct Request
{
    ULONG Code;
    std::string Input;
    ULONG OutputLength;
    HANDLE Process;
};

// How the driver behaves; set it before the load.
struct Behaviour
{
    bool FailEntryAtTheEnd = false;
    bool TakeFilterBack = false; // unregisters the filter at the end of the entry routine
    bool ForgetPool = false;     // allocates at load and does not free
    // What each request does: written to the caller's own buffer (if not empty), or through the system buffer.
    std::string Direct;
    std::string Buffered;
    NTSTATUS Answer = STATUS_SUCCESS;
};

extern Behaviour behaviour;
extern std::vector<Request> requests;

void Reset();
NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
// What ForgetPool left.
void FreeForgotten();
}
