#include "driver/log/parameter_dump.h"

#include "driver/core/global_state.h"
#include "driver/log/debug_mailslot.h"
#include "driver/log/labels.h"
#include "driver/log/list_copies.h"
#include "driver/names/process_name.h"
#include "driver/util/debug_print.h"
#include "driver/util/kernel_handle.h"
#include "driver/util/unlocked.h"

namespace
{
constexpr WCHAR MailslotName[] = L"\\Device\\mailslot\\OrvaneSandbox_Dbg";
constexpr WCHAR Parameter[] = L"Param :";

// List items appear only when the flags ask for this level, headers always.
constexpr ULONG LevelItem = 0x01;

class Dump
{
public:
    explicit Dump(ULONG flags) : flags_(flags) {}

    NTSTATUS Open();
    NTSTATUS WriteAll();
    void WriteFailure(NTSTATUS status);

private:
    template <class... Arguments>
    void Line(ULONG level, PCWSTR format, Arguments... arguments)
    {
        WriteDebugMailslot(
            level, flags_, mailslot_.Get(), processId_, threadId_, processName_.Get(), format, arguments...);
    }
    template <class... Arguments>
    void Header(PCWSTR format, Arguments... arguments)
    {
        Line(LevelTrace, format, arguments...);
    }
    template <class... Arguments>
    void Item(PCWSTR format, Arguments... arguments)
    {
        Line(LevelItem, format, arguments...);
    }
    // The lines of one list.
    void ProcessIds(const ListCopy<ProcessSlot>& copy, PCWSTR label)
    {
        for (ULONG i = 0; i < copy.Count(); ++i)
        {
            Item(L"%s %s PID = %d\r\n", Parameter, label, ProcessIdNumber(copy[i].ProcessId));
        }
    }

    NTSTATUS OpenMailslot();
    void OutputCryptKey();
    void OutputPaths();
    NTSTATUS OutputNames(LockedList<ProcessNameEntry>& list, PCWSTR label);
    NTSTATUS OutputMonitored(LockedList<MonitoredProcessEntry>& list, PCWSTR label);
    NTSTATUS OutputProtection(FileProtection* protection);
    NTSTATUS OutputProtections();
    void OutputCache();

    ULONG flags_;
    KernelHandle mailslot_;
    ULONG processId_ = 0;
    ULONG threadId_ = 0;
    PoolPointer<WCHAR> processName_;
};

NTSTATUS Dump::OpenMailslot()
{
    UNICODE_STRING name = CountedView(MailslotName);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK result;
    NTSTATUS status = ZwOpenFile(mailslot_.Address(), GENERIC_WRITE, &attributes, &result,
        FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_NON_DIRECTORY_FILE);
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("ZwOpenFile failed. ObjectName = %wZ NTStatus = %x\n", &name, status);
    }
    return status;
}

NTSTATUS Dump::Open()
{
    NTSTATUS status = OpenMailslot();
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    processId_ = ProcessIdNumber(PsGetCurrentProcessId());
    threadId_ = ProcessIdNumber(PsGetCurrentThreadId());
    status = GetProcessName(&processName_, PsGetCurrentProcessId());
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("Cannot resolve process name.\n");
    }
    return status;
}

// Whether there is a key, never the key itself.
void Dump::OutputCryptKey()
{
    bool keyExists = false;
    for (UCHAR byte : Global.CryptKey)
    {
        keyExists = keyExists || LoadUnlocked(byte) != 0;
    }
    Header(L"%s Length = %d Key = %s Xor = %s Encryption = %s\r\n", Parameter, LoadUnlocked(Global.KeyLength),
        keyExists ? L"Exists" : L"Empty", LoadUnlocked(Global.XorByte) != 0 ? L"Exists" : L"Empty",
        LoadUnlocked(Global.EncryptionEnabled) != 0 ? L"Enable" : L"Disable");
}

void Dump::OutputPaths()
{
    Header(L"%s SandboxPath = %wZ\r\n", Parameter, &Global.SandboxPath);
    Header(L"%s PrefixSandboxPath = %wZ\r\n", Parameter, &Global.PrefixSandboxPath);
}

NTSTATUS Dump::OutputNames(LockedList<ProcessNameEntry>& list, PCWSTR label)
{
    ListCopy<NameSlot> names;
    NTSTATUS status = DuplicateProcessNameList(&list, &names);
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("DuplicateProcessNameList failed.\n");
        return status;
    }
    Header(L"%s %s Count = %d\r\n", Parameter, label, names.Count());
    for (ULONG i = 0; i < names.Count(); ++i)
    {
        // A name without a buffer would print as a null text; it is merely empty.
        UNICODE_STRING name = names[i].Name.Buffer != nullptr ? names[i].Name : CountedView(L"");
        Item(L"%s %s %wZ\r\n", Parameter, label, &name);
    }
    return status;
}

NTSTATUS Dump::OutputMonitored(LockedList<MonitoredProcessEntry>& list, PCWSTR label)
{
    ListCopy<ProcessSlot> processes;
    NTSTATUS status = DuplicateMonProcList(&list, &processes);
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("DuplicateMonProcList failed.\n");
        return status;
    }
    Header(L"%s %s Count = %d\r\n", Parameter, label, processes.Count());
    ProcessIds(processes, label);
    return status;
}

NTSTATUS Dump::OutputProtection(FileProtection* protection)
{
    constexpr WCHAR label[] = L"Protection :";
    ListCopy<ProcessSlot> processes;
    NTSTATUS status =
        DuplicateAllowedProcessList(&protection->AllowedProcesses, &Global.FileProtections.Lock, &processes);
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("DuplicateAllowedProcessList failed.\n");
        return status;
    }
    Header(L"%s %s FilePath = %wZ Count = %d\r\n", Parameter, label, &protection->Path, processes.Count());
    ProcessIds(processes, label);
    return status;
}

NTSTATUS Dump::OutputProtections()
{
    NTSTATUS status = STATUS_SUCCESS;
    FileProtection* protection = nullptr;
    for (ULONG i = 0; NT_SUCCESS(status) && NT_SUCCESS(GetFileProtectionAt(i, &protection)); ++i)
    {
        status = OutputProtection(protection);
    }
    return status;
}

void Dump::OutputCache()
{
    ULONG count = 0;
    // Fails for null arguments only.
    CTGetElementCount(&Global.ProcessCache, &count);
    Header(L"%s %s Count = %d\r\n", Parameter, L"Cache : Process :", count);
}

NTSTATUS Dump::WriteAll()
{
    Header(L"%s %s\r\n", SourceDeviceControl, OperationOutputParameters);
    Header(L"%s RegPath = %wZ\r\n", Parameter, &Global.RegistryPath);
    OutputCryptKey();
    OutputPaths();

    NTSTATUS status = OutputNames(Global.ParentProcessNameList, L"ParentName :");
    if (NT_SUCCESS(status))
    {
        status = OutputNames(Global.ProcessNameList, L"ProcessName :");
    }
    if (NT_SUCCESS(status))
    {
        status = OutputNames(Global.ExclusionProcessNameList, L"ExcProcName :");
    }
    if (NT_SUCCESS(status))
    {
        status = OutputMonitored(Global.MonitoredParentProcessList, L"Parent :");
    }
    if (NT_SUCCESS(status))
    {
        status = OutputMonitored(Global.MonitoredProcessList, L"Child :");
    }
    if (NT_SUCCESS(status))
    {
        status = OutputProtections();
    }
    if (NT_SUCCESS(status))
    {
        OutputCache();
    }
    return status;
}

// With whatever handle and name there are: without a mailslot the writing fails and says so.
void Dump::WriteFailure(NTSTATUS status)
{
    Header(L"%s %s status = 0x%08XL\r\n", SourceDeviceControl, OperationOutputParameters, status);
}
}

NTSTATUS OutputParameters()
{
    ULONG flags = 0;
    NTSTATUS status = GetDebugLogFlags(&flags);
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("GetDebugLogFlags failed.\n");
        return status;
    }
    flags |= LevelTrace;
    PrintWithDriverName("DebugLogFlags 0x%02x\n", flags);
    Dump dump(flags);
    status = dump.Open();
    if (NT_SUCCESS(status))
    {
        status = dump.WriteAll();
    }
    if (!NT_SUCCESS(status))
    {
        dump.WriteFailure(status);
    }
    return status;
}
