// Questions about the whole system.
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"
#include "hosted/ke/user_access.h"
#include "hosted/ps/process_table.h"
#include "hosted/ps/query_hooks.h"

namespace hosted
{
namespace
{
// What follows each process record, once per thread.
struct ThreadRecord
{
    LARGE_INTEGER KernelTime;
    LARGE_INTEGER UserTime;
    LARGE_INTEGER CreateTime;
    ULONG WaitTime;
    PVOID StartAddress;
    CLIENT_ID ClientId;
    KPRIORITY Priority;
    LONG BasePriority;
    ULONG ContextSwitches;
    ULONG State;
    ULONG WaitReason;
};
static_assert(sizeof(ThreadRecord) == 0x50);

// Windows describes one thread of the idle process per processor; every process has one thread here.
constexpr ULONG ThreadsPerProcess = 1;

size_t NameBytes(const ProcessSummary& process)
{
    return process.ImageFileName.empty() ? 0 : (process.ImageFileName.size() + 1) * sizeof(WCHAR);
}

size_t RecordBytes(const ProcessSummary& process)
{
    const size_t bytes =
        sizeof(SYSTEM_PROCESS_INFORMATION) + ThreadsPerProcess * sizeof(ThreadRecord) + NameBytes(process);
    return ALIGN_UP_BY(bytes, sizeof(ULONGLONG));
}

void WriteRecord(UCHAR* at, const ProcessSummary& process, bool last)
{
    const size_t bytes = RecordBytes(process);
    __builtin_memset(at, 0, bytes);
    auto* record = reinterpret_cast<SYSTEM_PROCESS_INFORMATION*>(at);
    auto* thread = reinterpret_cast<ThreadRecord*>(record + 1);
    auto* name = reinterpret_cast<WCHAR*>(thread + ThreadsPerProcess);
    record->NextEntryOffset = last ? 0 : static_cast<ULONG>(bytes);
    record->NumberOfThreads = ThreadsPerProcess;
    record->CreateTime.QuadPart = process.CreateTime;
    record->UniqueProcessId = process.Id;
    record->InheritedFromUniqueProcessId = process.ParentId;
    record->BasePriority = 8;
    thread->CreateTime.QuadPart = process.CreateTime;
    thread->ClientId.UniqueProcess = process.Id;
    thread->BasePriority = 8;
    if (NameBytes(process) != 0)
    {
        record->ImageName.MaximumLength = static_cast<USHORT>(NameBytes(process));
        record->ImageName.Length = static_cast<USHORT>(NameBytes(process) - sizeof(WCHAR));
        record->ImageName.Buffer = name;
        __builtin_memcpy(name, process.ImageFileName.c_str(), NameBytes(process));
    }
}

NTSTATUS AnswerProcesses(void* buffer, ULONG length, ULONG* returned)
{
    std::vector<ProcessSummary> all = SnapshotProcesses();
    all.insert(all.begin(), ProcessSummary{});
    size_t needed = 0;
    for (const ProcessSummary& process : all)
    {
        needed += RecordBytes(process);
    }
    if (returned != nullptr)
    {
        *returned = static_cast<ULONG>(needed);
    }
    if (length < needed)
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    auto* at = static_cast<UCHAR*>(buffer);
    for (const ProcessSummary& process : all)
    {
        WriteRecord(at, process, &process == &all.back());
        at += RecordBytes(process);
    }
    return STATUS_SUCCESS;
}

NTSTATUS AnswerPoolZeroing(void* buffer, ULONG length, ULONG* returned)
{
    if (Model().MajorVersion < 10)
    {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (returned != nullptr)
    {
        *returned = sizeof(BOOLEAN);
    }
    if (length != sizeof(BOOLEAN))
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    *static_cast<BOOLEAN*>(buffer) = Model().ZeroesPool ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS QuerySystem(const char* routine, ULONG kind, void* buffer, ULONG length, ULONG* returned)
{
    RequireIrql(PASSIVE_LEVEL, routine);
    if (InjectFailure(routine))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const auto answer = AskSystemQueryHook(kind, length);
    if (answer.has_value())
    {
        if (returned != nullptr)
        {
            *returned = answer->RequiredLength;
        }
        return answer->Status;
    }
    switch (kind)
    {
    case SystemProcessInformation:
        return AnswerProcesses(buffer, length, returned);
    case SystemPoolZeroingInformation:
        return AnswerPoolZeroing(buffer, length, returned);
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
}

bool CallerMayPass(const void* address)
{
    return address == nullptr || CurrentProcess() == SystemProcess() || IsUserAddress(address);
}
}
}

extern "C" NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
    PVOID SystemInformation, ULONG SystemInformationLength, PULONG ReturnLength)
{
    return hosted::QuerySystem(
        "ZwQuerySystemInformation", SystemInformationClass, SystemInformation, SystemInformationLength, ReturnLength);
}

// Unlike the other it trusts its buffers only on threads of the system process, which call in from the kernel; on a
// program's thread kernel addresses are refused.
extern "C" NTSTATUS NTAPI NtQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
    PVOID SystemInformation, ULONG SystemInformationLength, PULONG ReturnLength)
{
    if (!hosted::CallerMayPass(SystemInformation) || !hosted::CallerMayPass(ReturnLength))
    {
        return STATUS_ACCESS_VIOLATION;
    }
    return hosted::QuerySystem(
        "NtQuerySystemInformation", SystemInformationClass, SystemInformation, SystemInformationLength, ReturnLength);
}
