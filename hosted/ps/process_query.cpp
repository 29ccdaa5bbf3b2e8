// Questions about one process, asked by handle.
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ps/process_table.h"
#include "hosted/ps/query_hooks.h"

namespace hosted
{
namespace
{
// Stands for the calling process itself wherever a process handle is expected.
constexpr LONG_PTR OwnProcessHandle = -1;

NTSTATUS ReferenceProcess(HANDLE handle, Process** process)
{
    void* body = nullptr;
    if (reinterpret_cast<LONG_PTR>(handle) == OwnProcessHandle)
    {
        body = CurrentProcess();
        ReferenceObject(body);
    }
    else
    {
        const NTSTATUS status = TableOf(handle).Reference(handle, 0, &ProcessType, KernelMode, &body);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
    }
    *process = static_cast<Process*>(body);
    return STATUS_SUCCESS;
}

// A counted string followed by its characters, which it points to, and a terminator. A process without an image
// has an empty name and nothing behind it.
NTSTATUS AnswerImageName(const WideString& name, void* buffer, ULONG length, ULONG* returned)
{
    const auto bytes = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    const auto capacity = static_cast<USHORT>(bytes == 0 ? 0 : bytes + sizeof(WCHAR));
    const auto needed = static_cast<ULONG>(sizeof(UNICODE_STRING) + capacity);
    if (returned != nullptr)
    {
        *returned = needed;
    }
    if (length < needed)
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    auto* string = static_cast<UNICODE_STRING*>(buffer);
    string->Length = bytes;
    string->MaximumLength = capacity;
    string->Buffer = reinterpret_cast<PWSTR>(string + 1);
    __builtin_memcpy(string->Buffer, name.c_str(), capacity);
    return STATUS_SUCCESS;
}
}
}

extern "C" NTSTATUS NTAPI ZwQueryInformationProcess(HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
    PVOID ProcessInformation, ULONG ProcessInformationLength, PULONG ReturnLength)
{
    hosted::RequireIrql(PASSIVE_LEVEL, "ZwQueryInformationProcess");
    if (hosted::InjectFailure("ZwQueryInformationProcess"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const auto answer = hosted::AskProcessQueryHook(ProcessInformationClass, ProcessInformationLength);
    if (answer.has_value())
    {
        if (ReturnLength != nullptr)
        {
            *ReturnLength = answer->RequiredLength;
        }
        return answer->Status;
    }
    if (ProcessInformationClass != ProcessImageFileName)
    {
        return STATUS_INVALID_INFO_CLASS;
    }
    hosted::Process* process = nullptr;
    NTSTATUS status = hosted::ReferenceProcess(ProcessHandle, &process);
    if (NT_SUCCESS(status))
    {
        status =
            hosted::AnswerImageName(process->ImageNtPath, ProcessInformation, ProcessInformationLength, ReturnLength);
        hosted::DereferenceObject(process);
    }
    return status;
}
