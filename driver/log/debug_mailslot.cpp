#include "driver/log/debug_mailslot.h"

#include "driver/util/registry_value.h"
#include "driver/util/counted_string.h"
#include "driver/util/debug_print.h"

#include <ntstrsafe.h>
#include <stdarg.h>

namespace
{
constexpr SIZE_T LineBytes = 40960;

struct LevelName
{
    ULONG Bits;
    PCWSTR Name;
};

// A level word with bits of several rows is named after the first.
constexpr LevelName LevelNames[] = {{0x03, L"Info"}, {0x0c, L"Warn"}, {0x30, L"Error"}, {0x40, L"Trace"}};

PCWSTR NameOfLevel(ULONG level)
{
    for (const LevelName& row : LevelNames)
    {
        if ((level & row.Bits) != 0)
        {
            return row.Name;
        }
    }
    return nullptr;
}

void PrintQueryFailure(PCUNICODE_STRING name, NTSTATUS status)
{
    PrintWithDriverName("ZwQueryValueKey ValueName = %wZ NTStatus = %x\n", name, status);
}

// Bits 8 to 15. The bytes that a value shorter than a word lacks are zero.
ULONG FlagsOfValue(const RegistryValue& value)
{
    ULONG word = 0;
    RtlCopyMemory(&word, value->Data, value->DataLength < sizeof(word) ? value->DataLength : sizeof(word));
    return word >> 8 & 0xff;
}

// A line in the making. Nothing is truncated: a part that does not fit is left out.
class Line
{
public:
    bool Allocate()
    {
        text_ = PoolPointer<WCHAR>::Allocate(LineBytes);
        end_ = text_.Get();
        return static_cast<bool>(text_);
    }

    // STATUS_BUFFER_OVERFLOW when the part and a terminator do not fit.
    NTSTATUS Append(PCWSTR format, va_list arguments)
    {
        constexpr ULONG wholeOrNothing = STRSAFE_NO_TRUNCATION | STRSAFE_NULL_ON_FAILURE;
        return RtlStringCbVPrintfExW(end_, room_, &end_, &room_, wholeOrNothing, format, arguments);
    }

    NTSTATUS __cdecl AppendParts(PCWSTR format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        NTSTATUS status = Append(format, arguments);
        va_end(arguments);
        return status;
    }

    NTSTATUS WriteTo(HANDLE mailslot) const
    {
        IO_STATUS_BLOCK result;
        ULONG bytes = static_cast<ULONG>(LineBytes - room_ + sizeof(WCHAR));
        NTSTATUS status =
            ZwWriteFile(mailslot, nullptr, nullptr, nullptr, &result, text_.Get(), bytes, nullptr, nullptr);
        if (!NT_SUCCESS(status))
        {
            PrintWithDriverName("ZwWriteFile failed. Mailslot = %p NTStatus = %x\n", mailslot, status);
        }
        return status;
    }

private:
    PoolPointer<WCHAR> text_;
    // The terminator, and the bytes from there on.
    PWSTR end_ = nullptr;
    size_t room_ = LineBytes;
};

void GetLocalTime(PTIME_FIELDS fields)
{
    LARGE_INTEGER systemTime;
    KeQuerySystemTime(&systemTime);
    LARGE_INTEGER localTime;
    ExSystemTimeToLocalTime(&systemTime, &localTime);
    RtlTimeToTimeFields(&localTime, fields);
}
}

NTSTATUS GetDebugLogFlags(PULONG flags)
{
    *flags = 0;
    UNICODE_STRING path = CountedView(ProductKeyPath);
    KernelHandle key;
    NTSTATUS status = OpenRegistryKey(&path, KEY_READ, &key);
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("ZwOpenKey failed. Path = %wZ NTStatus = %x\n", &path, status);
        return status;
    }
    UNICODE_STRING name = CountedView(L"DebugLogLevel");
    ULONG size = 0;
    status = AskRegistryValueSize(key.Get(), &name, &size);
    if (!IsSizeAnswer(status))
    {
        PrintQueryFailure(&name, status);
        return status;
    }
    RegistryValue value = AllocateRegistryValue(size);
    if (!value)
    {
        PrintWithDriverName("DebugLogFlag allocate error\n");
        return status;
    }
    status = QueryRegistryValue(key.Get(), &name, size, value);
    if (!NT_SUCCESS(status))
    {
        PrintQueryFailure(&name, status);
        return status;
    }
    if (value->Type != REG_DWORD)
    {
        PrintWithDriverName("REG_XXX type = %08x\n", value->Type);
        return STATUS_SUCCESS;
    }
    if (value->DataLength == 0)
    {
        PrintWithDriverName("DataLength = Zero\n");
        return STATUS_SUCCESS;
    }
    *flags = FlagsOfValue(value);
    return STATUS_SUCCESS;
}

NTSTATUS __cdecl WriteDebugMailslot(
    ULONG level, ULONG flags, HANDLE mailslot, ULONG processId, ULONG threadId, PCWSTR processName, PCWSTR format, ...)
{
    if (KeGetCurrentIrql() > PASSIVE_LEVEL || (level & flags) == 0)
    {
        return STATUS_SUCCESS;
    }
    PCWSTR levelName = NameOfLevel(level);
    if (levelName == nullptr)
    {
        return STATUS_SUCCESS;
    }
    Line line;
    if (!line.Allocate())
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    TIME_FIELDS now;
    GetLocalTime(&now);
    NTSTATUS status = line.AppendParts(L"0|%d/%02d/%02d %02d:%02d:%02d [%ws (%d)] tid=%d %ws : %ws [%ws (%d)] ",
        now.Year, now.Month, now.Day, now.Hour, now.Minute, now.Second, processName, processId, threadId, L"Tarnveil",
        levelName, processName, processId);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    va_list arguments;
    va_start(arguments, format);
    status = line.Append(format, arguments);
    va_end(arguments);
    // A message that does not fit is left out, and its header written all the same.
    if (!NT_SUCCESS(status) && status != STATUS_BUFFER_OVERFLOW)
    {
        return status;
    }
    return line.WriteTo(mailslot);
}
