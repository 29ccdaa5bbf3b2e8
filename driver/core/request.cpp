#include "driver/core/request.h"

#include <fault_guard.h>

NTSTATUS ProbeCallerOutput(const Request& request, ULONG bytes)
{
    if (request.Mode == KernelMode)
    {
        return STATUS_SUCCESS;
    }
    PVOID buffer = request.CallerOutput;
    return TryAccess([buffer, bytes] { ProbeForWrite(buffer, bytes, sizeof(UCHAR)); });
}

NTSTATUS ReadCallerWord(const Request& request, PULONG word)
{
    const void* buffer = request.CallerOutput;
    return TryAccess([buffer, word] { RtlCopyMemory(word, buffer, sizeof(*word)); });
}

NTSTATUS WriteCallerWord(const Request& request, ULONG word)
{
    PVOID buffer = request.CallerOutput;
    return TryAccess([buffer, word] { RtlCopyMemory(buffer, &word, sizeof(word)); });
}

bool InputWord(const Request& request, PULONG word)
{
    if (request.SystemBuffer == nullptr || request.InputLength < sizeof(*word))
    {
        return false;
    }
    RtlCopyMemory(word, request.SystemBuffer, sizeof(*word));
    return true;
}
