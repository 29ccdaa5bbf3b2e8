#include "driver/log/log_channel.h"

#include "driver/log/elided_name.h"
#include "driver/names/process_name.h"
#include "driver/util/debug_print.h"
#include "driver/util/list.h"
#include "driver/util/pool.h"
#include "driver/util/unlocked.h"

namespace
{
struct LogRecordEntry
{
    LIST_ENTRY Links;
    TARNVEIL_LOG_RECORD Body;
};

static_assert(sizeof(TARNVEIL_LOG_RECORD) == TARNVEIL_LOG_RECORD_BYTES, "agents rely on the size");
static_assert(sizeof(LogRecordEntry) == 1112, "links and body, nothing between");

struct LogChannel
{
    // Set at load and cleared at unload, when nobody else is there; read without a lock.
    BOOLEAN Initialized;
    LockedList<LogRecordEntry> Records;
    // Referenced; null while nobody registered.
    PKEVENT Event GUARDED_BY(Records.Lock);
    // As the agent passed it, to recognise a repetition.
    ULONGLONG EventHandle GUARDED_BY(Records.Lock);
    ULONG Flags GUARDED_BY(Records.Lock);
};

// Not part of the global state: whether the channel is initialised has to outlive the clearing of that, and nobody but
// this file touches the rest.
LogChannel Channel;

// Leaves room for the terminator that the zero-filled field supplies.
constexpr USHORT NameTextBytes = (TARNVEIL_LOG_NAME_CHARACTERS - 1) * sizeof(WCHAR);
constexpr size_t MessageTextCharacters = TARNVEIL_LOG_MESSAGE_CHARACTERS - 1;

NTSTATUS RegisterEvent(const TARNVEIL_START_LOGGING* input)
{
    PVOID event = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(
        reinterpret_cast<HANDLE>(input->EventHandle), READ_CONTROL, *ExEventObjectType, UserMode, &event, nullptr);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("[Logging] StartLogging : ObReferenceObjectByHandle failed: %08X\n", status);
        return status;
    }
    WithLock(Channel.Records.Lock,
        [=]() REQUIRES_LOCK(Channel.Records.Lock)
        {
            if (Channel.Event != nullptr)
            {
                ObfDereferenceObject(Channel.Event);
            }
            Channel.Event = static_cast<PKEVENT>(event);
            Channel.EventHandle = input->EventHandle;
            Channel.Flags = input->Flags;
        });
    return status;
}

bool IsRegisteredAlready(const TARNVEIL_START_LOGGING* input)
{
    bool same = false;
    WithLock(Channel.Records.Lock, [&]() REQUIRES_LOCK(Channel.Records.Lock)
        { same = Channel.EventHandle == input->EventHandle && Channel.Flags == input->Flags; });
    return same;
}

void DropOldest() REQUIRES_LOCK(Channel.Records.Lock)
{
    LogRecordEntry* oldest = Channel.Records.Entries.First();
    List<LogRecordEntry>::Unlink(oldest);
    FreePool(oldest);
}

void DropAll() REQUIRES_LOCK(Channel.Records.Lock)
{
    while (!Channel.Records.Entries.IsEmpty())
    {
        DropOldest();
    }
}

bool IsEnabled(ULONG level) REQUIRES_LOCK(Channel.Records.Lock)
{
    return Channel.Event != nullptr && (Channel.Flags & level) != 0;
}

// A full queue loses its oldest record, never the new one. Logging may have stopped while the record was made, which
// then stays the caller's.
void Queue(PoolPointer<LogRecordEntry>& entry)
{
    WithLock(Channel.Records.Lock,
        [&entry]() REQUIRES_LOCK(Channel.Records.Lock)
        {
            if (!IsEnabled(entry->Body.Level))
            {
                return;
            }
            for (ULONG count = Channel.Records.Entries.Count(); count >= TARNVEIL_LOG_MAXIMUM_RECORDS; --count)
            {
                DropOldest();
            }
            Channel.Records.Entries.Append(entry.Detach());
            KeSetEvent(Channel.Event, 0, FALSE);
        });
}

NTSTATUS FillProcessName(LogRecordEntry* entry, HANDLE processId, PCWSTR processName)
{
    PoolPointer<WCHAR> lookedUp;
    if (processName == nullptr)
    {
        NTSTATUS status = GetProcessName(&lookedUp, processId);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
        processName = lookedUp.Get();
    }
    UNICODE_STRING source;
    RtlInitUnicodeString(&source, processName);
    UNICODE_STRING field;
    field.Length = 0;
    field.MaximumLength = NameTextBytes;
    field.Buffer = reinterpret_cast<PWSTR>(entry->Body.ProcessName);
    return CopyNameElided(&field, &source);
}

void FillMessage(LogRecordEntry* entry, PCWSTR format, va_list arguments)
{
    PWSTR message = reinterpret_cast<PWSTR>(entry->Body.Message);
    int written = _vsnwprintf(message, MessageTextCharacters, format, arguments);
    if (written < 0)
    {
        message[MessageTextCharacters] = UNICODE_NULL;
    }
}

ULONG MoveRecords(TARNVEIL_LOG_RECORD* records, ULONG room) REQUIRES_LOCK(Channel.Records.Lock)
{
    ULONG moved = 0;
    while (moved < room && !Channel.Records.Entries.IsEmpty())
    {
        RtlCopyMemory(&records[moved++], &Channel.Records.Entries.First()->Body, sizeof(TARNVEIL_LOG_RECORD));
        DropOldest();
    }
    return moved;
}
}

NTSTATUS InitializeLogChannel() NO_LOCK_ANALYSIS
{
    if (Channel.Initialized)
    {
        return STATUS_UNSUCCESSFUL;
    }
    RtlZeroMemory(static_cast<void*>(&Channel), sizeof(Channel));
    Channel.Records.Lock.Initialize();
    Channel.Records.Entries.Initialize();
    Channel.Initialized = TRUE;
    return STATUS_SUCCESS;
}

void FinalizeLogChannel()
{
    StopLogging();
    Channel.Initialized = FALSE;
}

NTSTATUS StartLogging(const TARNVEIL_START_LOGGING* input)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    if (Channel.Initialized)
    {
        status = IsRegisteredAlready(input) ? STATUS_SUCCESS : RegisterEvent(input);
    }
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr,
        L"%s %s Handle = 0x%p Flags = 0x%08XL status = 0x%08XL", SourceDeviceControl, OperationStartLogging,
        reinterpret_cast<PVOID>(input->EventHandle), input->Flags, status);
    return status;
}

NTSTATUS StopLogging()
{
    if (!Channel.Initialized)
    {
        return STATUS_UNSUCCESSFUL;
    }
    WithLock(Channel.Records.Lock,
        []() REQUIRES_LOCK(Channel.Records.Lock)
        {
            DropAll();
            if (Channel.Event != nullptr)
            {
                ObfDereferenceObject(Channel.Event);
            }
            Channel.Event = nullptr;
            Channel.EventHandle = 0;
            Channel.Flags = 0;
        });
    return STATUS_SUCCESS;
}

BOOLEAN IsLogLevelEnabled(ULONG level)
{
    BOOLEAN enabled = FALSE;
    if (Channel.Initialized)
    {
        WithLockBelowDispatch(Channel.Records.Lock,
            [&enabled, level]() REQUIRES_LOCK(Channel.Records.Lock) { enabled = IsEnabled(level); });
    }
    return enabled;
}

ULONG GetLogRecordCount()
{
    ULONG count = 0;
    WithLock(Channel.Records.Lock,
        [&count]() REQUIRES_LOCK(Channel.Records.Lock) { count = Channel.Records.Entries.Count(); });
    return count;
}

NTSTATUS __cdecl WriteLogRecord(ULONG level, HANDLE processId, PCWSTR processName, PCWSTR format, ...)
{
    if (!Channel.Initialized)
    {
        return STATUS_UNSUCCESSFUL;
    }
    if (KeGetCurrentIrql() > PASSIVE_LEVEL)
    {
        DbgPrint("[Logging][Crypt]\n          IRQL        : %d\n          Level       : %d\n          ProcessId   : "
                 "%d\n          Format      : %ws\n",
            KeGetCurrentIrql(), level, ProcessIdNumber(processId), format);
        return STATUS_SUCCESS;
    }
    if (!IsLogLevelEnabled(level))
    {
        return STATUS_SUCCESS;
    }
    auto entry = PoolPointer<LogRecordEntry>::Allocate();
    if (!entry)
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    entry->Body.Level = level;
    entry->Body.ProcessId = ProcessIdNumber(processId);
    NTSTATUS status = FillProcessName(entry.Get(), processId, processName);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    va_list arguments;
    va_start(arguments, format);
    FillMessage(entry.Get(), format, arguments);
    va_end(arguments);
    Queue(entry);
    return STATUS_SUCCESS;
}

NTSTATUS GetLogData(PVOID buffer, PULONG length)
{
    if (!Channel.Initialized)
    {
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = STATUS_SUCCESS;
    ULONG room = *length / TARNVEIL_LOG_RECORD_BYTES;
    ULONG moved = 0;
    WithLockBelowDispatch(Channel.Records.Lock,
        [&]() REQUIRES_LOCK(Channel.Records.Lock)
        {
            if (room == 0)
            {
                status = STATUS_BUFFER_TOO_SMALL;
            }
            else if (Channel.Records.Entries.IsEmpty())
            {
                status = STATUS_NO_MORE_ENTRIES;
            }
            else
            {
                moved = MoveRecords(static_cast<TARNVEIL_LOG_RECORD*>(buffer), room);
            }
        });
    *length = moved * TARNVEIL_LOG_RECORD_BYTES;
    return status;
}
