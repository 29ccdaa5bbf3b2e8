// One device-control request as its handler sees it, and the handlers.
#pragma once

#include <ntifs.h>
#include <tarnveil/control.h>

struct Request
{
    // The system buffer: the agent's input, and for log data the output. Null when both lengths are 0.
    PVOID SystemBuffer;
    ULONG InputLength;
    // The caller's own output buffer: only to be touched through the routines below.
    PVOID CallerOutput;
    ULONG OutputLength;
    KPROCESSOR_MODE Mode;
    // Bytes that the I/O manager copies back from the system buffer.
    ULONG_PTR Information;
};

// STATUS_ACCESS_VIOLATION when the caller cannot write that many bytes there; asked before anything is changed. A
// kernel caller's buffer is taken on trust. All routines here: IRQL PASSIVE_LEVEL, in the caller's process.
NTSTATUS ProbeCallerOutput(const Request& request, ULONG bytes);
// Guarded four-byte accesses to the beginning of the caller's output buffer. STATUS_ACCESS_VIOLATION where it cannot be
// touched, also when it could be a moment ago.
NTSTATUS ReadCallerWord(const Request& request, PULONG word);
NTSTATUS WriteCallerWord(const Request& request, ULONG word);

// The first four bytes of the input; false when there are fewer.
bool InputWord(const Request& request, PULONG word);

// A handler returns the status that the request is completed with. IRQL PASSIVE_LEVEL, in the caller's process, no
// locks held. docs/control-protocol.md says what each takes and answers.
typedef NTSTATUS (*RequestHandler)(Request& request);

NTSTATUS SetCryptKey(Request& request);
NTSTATUS SetEncryption(Request& request);
NTSTATUS Start(Request& request);
NTSTATUS Stop(Request& request);

NTSTATUS AddParentProcess(Request& request);
NTSTATUS AddProcess(Request& request);
NTSTATUS AddExclusionProcess(Request& request);
NTSTATUS DeleteProcess(Request& request);

NTSTATUS AddFileProtection(Request& request);
NTSTATUS DeleteFileProtection(Request& request);
NTSTATUS OutputCurrentParam(Request& request);

NTSTATUS IsUnderSandbox(Request& request);
NTSTATUS IsExistUnderSandbox(Request& request);
NTSTATUS GetPidListUnderSandbox(Request& request);

NTSTATUS StartLoggingRequest(Request& request);
NTSTATUS StopLoggingRequest(Request& request);
NTSTATUS GetLogDataRequest(Request& request);
