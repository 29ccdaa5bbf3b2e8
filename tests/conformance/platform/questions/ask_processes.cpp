// Processes, as they are listed, looked up and asked for their image.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
constexpr ULONG Tag = 'orPq';
constexpr ULONG ListBytes = 1 << 20;
constexpr ACCESS_MASK ProcessQueryAccess = 0x400;

using SystemQuery = NTSTATUS(NTAPI*)(SYSTEM_INFORMATION_CLASS, PVOID, ULONG, PULONG);
using ProcessQuery = NTSTATUS(NTAPI*)(HANDLE, PROCESSINFOCLASS, PVOID, ULONG, PULONG);

template <class Routine, SIZE_T Count>
Routine Find(const WCHAR (&name)[Count])
{
    Name counted(name);
    return reinterpret_cast<Routine>(MmGetSystemRoutineAddress(&counted));
}

bool IsNamed(const UNICODE_STRING& name, const WCHAR* text)
{
    SIZE_T index = 0;
    for (; index < name.Length / sizeof(WCHAR); ++index)
    {
        if (RtlUpcaseUnicodeChar(name.Buffer[index]) != RtlUpcaseUnicodeChar(text[index]))
        {
            return false;
        }
    }
    return text[index] == 0;
}

struct Listing
{
    bool FirstIsIdle = false;
    bool NamesInside = true;
    bool NamesTerminated = true;
    bool AlignedSteps = true;
    bool StepsCoverThreads = true;
    bool IdsAreMultiplesOfFour = true;
    ULONG Named = 0;
    HANDLE Running = nullptr;
    bool RunningHasParent = false;
};

Listing Read(const UCHAR* buffer, ULONG bytes)
{
    constexpr ULONG ThreadBytes = 0x50;
    Listing listing;
    ULONG at = 0;
    for (;;)
    {
        const auto* record = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(buffer + at);
        const UNICODE_STRING& name = record->ImageName;
        const auto* text = reinterpret_cast<const UCHAR*>(name.Buffer);
        if (at == 0)
        {
            listing.FirstIsIdle = record->UniqueProcessId == nullptr;
        }
        if (name.Buffer != nullptr)
        {
            ++listing.Named;
            listing.NamesInside =
                listing.NamesInside && text >= buffer + at && text + name.MaximumLength <= buffer + bytes;
            listing.NamesTerminated = listing.NamesTerminated && name.Buffer[name.Length / sizeof(WCHAR)] == 0;
            if (IsNamed(name, RunningProgram))
            {
                listing.Running = record->UniqueProcessId;
                listing.RunningHasParent = record->InheritedFromUniqueProcessId != nullptr;
            }
        }
        listing.IdsAreMultiplesOfFour =
            listing.IdsAreMultiplesOfFour && reinterpret_cast<ULONG_PTR>(record->UniqueProcessId) % 4 == 0;
        if (record->NextEntryOffset == 0)
        {
            return listing;
        }
        listing.AlignedSteps = listing.AlignedSteps && record->NextEntryOffset % 8 == 0;
        listing.StepsCoverThreads =
            listing.StepsCoverThreads &&
            record->NextEntryOffset >= sizeof(SYSTEM_PROCESS_INFORMATION) + record->NumberOfThreads * ThreadBytes;
        at += record->NextEntryOffset;
    }
}

// The id of the program that runs; null when the list does not name it.
HANDLE FindRunning(SystemQuery query)
{
    auto* buffer = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, ListBytes, Tag));
    HANDLE running = nullptr;
    if (buffer != nullptr)
    {
        if (NT_SUCCESS(query(SystemProcessInformation, buffer, ListBytes, nullptr)))
        {
            running = Read(buffer, ListBytes).Running;
        }
        ExFreePoolWithTag(buffer, Tag);
    }
    return running;
}

void AskList(Answers& answers, const char* routine, SystemQuery query, UCHAR* buffer)
{
    for (ULONG room : {0u, 1u, 255u, 256u})
    {
        Fill(buffer, 512);
        ULONG needed = 0;
        const NTSTATUS status = query(SystemProcessInformation, buffer, room, &needed);
        answers.Line(routine, " processes room ", room, ": ", Status{status}, " says more ", needed > room);
    }
    answers.Line(routine, " processes without a length: ", Status{query(SystemProcessInformation, buffer, 0, nullptr)});
    ULONG used = 0;
    const NTSTATUS status = query(SystemProcessInformation, buffer, ListBytes, &used);
    answers.Line(routine, " processes: ", Status{status}, " says less ", used != 0 && used < ListBytes);
    if (NT_SUCCESS(status))
    {
        const Listing listing = Read(buffer, used);
        answers.Line(routine, " first is the idle process: ", listing.FirstIsIdle);
        answers.Line(routine, " names inside: ", listing.NamesInside, " terminated ", listing.NamesTerminated);
        answers.Line(routine, " steps aligned: ", listing.AlignedSteps, " cover threads ", listing.StepsCoverThreads);
        answers.Line(routine, " ids are multiples of four: ", listing.IdsAreMultiplesOfFour);
        answers.Line(routine, " finds the program: ", Address{listing.Running}, " with a parent ",
            listing.RunningHasParent, " among more ", listing.Named > 1);
    }
    for (ULONG kind : {227u, 0x7000u, 0xFFFFFFFFu})
    {
        for (ULONG room : {0u, 1u, 64u})
        {
            Fill(buffer, 512);
            const NTSTATUS refused = query(static_cast<SYSTEM_INFORMATION_CLASS>(kind), buffer, room, nullptr);
            answers.Line(
                routine, " class ", Hex{kind}, " room ", room, ": ", Status{refused}, " ", Written{buffer, 512});
        }
    }
}

void AskLookup(Answers& answers, const char* label, HANDLE id)
{
    PEPROCESS process = nullptr;
    const NTSTATUS status = PsLookupProcessByProcessId(id, &process);
    answers.Line("PsLookupProcessByProcessId ", label, ": ", Status{status}, " ", Address{process});
    if (NT_SUCCESS(status))
    {
        PEPROCESS again = nullptr;
        PsLookupProcessByProcessId(id, &again);
        answers.Line("PsLookupProcessByProcessId ", label, " is the same object: ", process == again);
        ObDereferenceObject(again);
        ObDereferenceObject(process);
    }
}

struct ImageAnswer
{
    UNICODE_STRING Name;
    WCHAR Text[300];
};

void AskImageRoom(Answers& answers, ProcessQuery query, HANDLE process, const char* label, ULONG room, ULONG needed)
{
    ImageAnswer answer;
    Fill(&answer, sizeof(answer));
    ULONG length = 0xA5A5A5A5;
    const NTSTATUS status = query(process, ProcessImageFileName, &answer, room, &length);
    const bool untouched = [&]
    {
        const auto* bytes = reinterpret_cast<const UCHAR*>(&answer);
        SIZE_T index = NT_SUCCESS(status) ? needed : 0;
        for (; index < sizeof(answer) && bytes[index] == UntouchedByte; ++index)
        {
        }
        return index == sizeof(answer);
    }();
    answers.Line("ZwQueryInformationProcess image ", label, ": ", Status{status}, " length ",
        length == needed       ? "needed"
        : length == 0xA5A5A5A5 ? "untouched"
                               : "other",
        " rest untouched ", untouched);
}

void AskImage(Answers& answers, ProcessQuery query, HANDLE process)
{
    ULONG needed = 0;
    const NTSTATUS first = query(process, ProcessImageFileName, nullptr, 0, &needed);
    answers.Line("ZwQueryInformationProcess image size: ", Status{first}, " more than a string ",
        needed > sizeof(UNICODE_STRING), " even ", needed % 2 == 0);
    if (needed <= sizeof(UNICODE_STRING) + 3 || needed + 2 > sizeof(ImageAnswer))
    {
        return;
    }
    for (ULONG room : {0u, 1u, 15u, 16u, 17u, 18u})
    {
        const char* const labels[] = {"room 0", "room 1", "room 15", "room 16", "room 17", "room 18"};
        AskImageRoom(answers, query, process, labels[room < 2 ? room : room - 13], room, needed);
    }
    const char* const labels[] = {
        "room needed - 3", "room needed - 2", "room needed - 1", "room needed", "room needed + 1", "room needed + 2"};
    for (ULONG step = 0; step < 6; ++step)
    {
        AskImageRoom(answers, query, process, labels[step], needed - 3 + step, needed);
    }
    ImageAnswer answer;
    ULONG length = 0;
    if (NT_SUCCESS(query(process, ProcessImageFileName, &answer, needed, &length)))
    {
        const UNICODE_STRING& name = answer.Name;
        answers.Line("ZwQueryInformationProcess image string: behind the record ", name.Buffer == answer.Text,
            " room less length ", name.MaximumLength - name.Length, " needed less length ", needed - name.Length,
            " terminated ", answer.Text[name.Length / sizeof(WCHAR)] == 0);
        const SIZE_T program = sizeof(RunningProgram) / sizeof(WCHAR) - 1;
        const SIZE_T count = name.Length / sizeof(WCHAR);
        UNICODE_STRING last = name;
        last.Length = static_cast<USHORT>(program * sizeof(WCHAR));
        last.Buffer = name.Buffer + (count > program ? count - program : 0);
        answers.Line("ZwQueryInformationProcess image ends with the program: ", IsNamed(last, RunningProgram));
        Name device(L"\\Device\\");
        last.Length = device.Length;
        last.Buffer = name.Buffer;
        answers.Line("ZwQueryInformationProcess image is on a device: ", IsNamed(last, device.Buffer));
    }
    answers.Line("ZwQueryInformationProcess image without a length: ",
        Status{query(process, ProcessImageFileName, &answer, sizeof(answer), nullptr)});
    answers.Line("ZwQueryInformationProcess of no class: ",
        Status{query(process, static_cast<PROCESSINFOCLASS>(0x7000), &answer, sizeof(answer), &length)});
}

void NTAPI IgnoreProcess(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) {}

void AskPointer(Answers& answers, PEPROCESS process, ProcessQuery query)
{
    HANDLE handle = NoHandle;
    NTSTATUS status =
        ObOpenObjectByPointer(process, OBJ_KERNEL_HANDLE, nullptr, 0, *ExEventObjectType, KernelMode, &handle);
    answers.Line("ObOpenObjectByPointer of another type: ", Status{status});
    handle = NoHandle;
    status = ObOpenObjectByPointer(process, OBJ_KERNEL_HANDLE, nullptr, 0, nullptr, KernelMode, &handle);
    if (NT_SUCCESS(status))
    {
        ULONG needed = 0;
        answers.Line("ZwQueryInformationProcess by a handle without access: ",
            Status{query(handle, ProcessImageFileName, nullptr, 0, &needed)});
        ZwClose(handle);
    }
    handle = NoHandle;
    status =
        ObOpenObjectByPointer(process, OBJ_KERNEL_HANDLE, nullptr, ProcessQueryAccess, nullptr, KernelMode, &handle);
    answers.Line("ObOpenObjectByPointer: ", Status{status}, " handle ", handle != NoHandle && handle != nullptr);
    if (!NT_SUCCESS(status))
    {
        return;
    }
    PVOID object = nullptr;
    status = ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &object, nullptr);
    answers.Line("ObOpenObjectByPointer leads back: ", Status{status}, " ", object == process);
    if (NT_SUCCESS(status))
    {
        ObDereferenceObject(object);
    }
    AskImage(answers, query, handle);
    answers.Line("ZwClose of a process: ", Status{ZwClose(handle)});
}
}

void AskNotification(Answers& answers)
{
    answers.Line(
        "PsSetCreateProcessNotifyRoutineEx: ", Status{PsSetCreateProcessNotifyRoutineEx(IgnoreProcess, FALSE)});
    answers.Line(
        "PsSetCreateProcessNotifyRoutineEx again: ", Status{PsSetCreateProcessNotifyRoutineEx(IgnoreProcess, FALSE)});
    answers.Line(
        "PsSetCreateProcessNotifyRoutineEx removed: ", Status{PsSetCreateProcessNotifyRoutineEx(IgnoreProcess, TRUE)});
    answers.Line("PsSetCreateProcessNotifyRoutineEx removed again: ",
        Status{PsSetCreateProcessNotifyRoutineEx(IgnoreProcess, TRUE)});
}

void AskProcesses(Answers& answers)
{
    AskNotification(answers);
    const HANDLE process = PsGetCurrentProcessId();
    const HANDLE thread = PsGetCurrentThreadId();
    answers.Line("PsGetCurrentProcessId: ", Address{process}, " stays ", PsGetCurrentProcessId() == process,
        " multiple of four ", reinterpret_cast<ULONG_PTR>(process) % 4 == 0);
    answers.Line("PsGetCurrentThreadId: ", Address{thread}, " stays ", PsGetCurrentThreadId() == thread,
        " multiple of four ", reinterpret_cast<ULONG_PTR>(thread) % 4 == 0);
    AskLookup(answers, "of the caller", process);
    AskLookup(answers, "of nothing", nullptr);
    AskLookup(answers, "of no process", BadHandle);
    auto* buffer = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, ListBytes, Tag));
    if (buffer == nullptr)
    {
        return;
    }
    AskList(answers, "ZwQuerySystemInformation", Find<SystemQuery>(L"ZwQuerySystemInformation"), buffer);
    AskList(answers, "NtQuerySystemInformation", Find<SystemQuery>(L"NtQuerySystemInformation"), buffer);
    ExFreePoolWithTag(buffer, Tag);
}

void AskProcessImage(Answers& answers)
{
    const auto query = Find<ProcessQuery>(L"ZwQueryInformationProcess");
    const HANDLE running = FindRunning(Find<SystemQuery>(L"ZwQuerySystemInformation"));
    UCHAR buffer[64];
    ULONG length = 0;
    answers.Line("ZwQueryInformationProcess by a bad handle: ",
        Status{query(BadHandle, ProcessImageFileName, buffer, sizeof(buffer), &length)});
    answers.Line("ZwQueryInformationProcess by no handle: ",
        Status{query(nullptr, ProcessImageFileName, buffer, sizeof(buffer), &length)});
    PEPROCESS process = nullptr;
    const NTSTATUS status = PsLookupProcessByProcessId(running, &process);
    answers.Line("PsLookupProcessByProcessId of the program: ", Status{status});
    if (NT_SUCCESS(status))
    {
        AskPointer(answers, process, query);
        ObDereferenceObject(process);
    }
}
}
