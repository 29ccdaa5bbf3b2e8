#include "driver/names/long_path_name.h"

#include "driver/core/global_state.h"
#include "driver/names/dos_name.h"
#include "driver/names/no_memory.h"
#include "driver/util/kernel_handle.h"
#include "driver/util/name_matching.h"

namespace
{
constexpr SIZE_T PathBufferBytes = 65534;
constexpr ULONG DirectoryBufferBytes = 65630;
constexpr WCHAR DevicePathPattern[] = L"\\Device\\*";
constexpr WCHAR DosDevicesPrefix[] = L"\\??\\";

NTSTATUS CopyOf(PCUNICODE_STRING path, CountedString* copy)
{
    return copy->Copy(*path, path->MaximumLength) ? STATUS_SUCCESS : NoMemory();
}

// The work of one expansion: buffers that every component shares.
struct Expansion
{
    // "\??\" for a drive path, nothing for a device path.
    PCWSTR OpenPrefix;
    CountedString OpenPath;
    PoolPointer<FILE_BOTH_DIR_INFORMATION> Entry;
    CountedString* Result;
};

NTSTATUS OpenDirectory(Expansion& expansion, const UNICODE_STRING& directory, PHANDLE handle)
{
    expansion.OpenPath.Address()->Length = 0;
    if (!expansion.OpenPath.Append(expansion.OpenPrefix) || !expansion.OpenPath.Append(directory))
    {
        return STATUS_NAME_TOO_LONG;
    }
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(
        &attributes, expansion.OpenPath.Address(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus = {};
    constexpr ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    NTSTATUS status = ZwOpenFile(handle, FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &ioStatus, share,
        FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status))
    {
        status = ZwOpenFile(handle, FILE_LIST_DIRECTORY, &attributes, &ioStatus, share, FILE_SYNCHRONOUS_IO_NONALERT);
    }
    return status;
}

// The long name of the directory's entry whose short or long name is the component; it lies in the entry buffer.
NTSTATUS FindLongName(Expansion& expansion, HANDLE directory, const UNICODE_STRING& component, UNICODE_STRING* found)
{
    UNICODE_STRING searchName = component;
    FILE_BOTH_DIR_INFORMATION* entry = expansion.Entry.Get();
    for (;;)
    {
        IO_STATUS_BLOCK ioStatus = {};
        NTSTATUS status = ZwQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &ioStatus, entry,
            DirectoryBufferBytes, FileBothDirectoryInformation, TRUE, &searchName, FALSE);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
        UNICODE_STRING shortName = {};
        shortName.Buffer = entry->ShortName;
        shortName.Length = static_cast<USHORT>(entry->ShortNameLength);
        UNICODE_STRING longName = {};
        longName.Buffer = entry->FileName;
        longName.Length = static_cast<USHORT>(entry->FileNameLength);
        if (IsEqualNameNoCase(&shortName, &component) || IsEqualNameNoCase(&longName, &component))
        {
            *found = longName;
            return STATUS_SUCCESS;
        }
    }
}

bool AppendComponent(Expansion& expansion, const UNICODE_STRING& directory, const UNICODE_STRING& name)
{
    bool first = expansion.Result->Get().Length == 0;
    bool separated = first ? expansion.Result->Append(directory) : expansion.Result->Append(L"\\");
    return separated && expansion.Result->Append(name);
}

// `directory` ends in the backslash before `component`.
bool ExpandComponent(Expansion& expansion, const UNICODE_STRING& directory, const UNICODE_STRING& component)
{
    KernelHandle handle;
    UNICODE_STRING name = component;
    // A doubled or trailing backslash leaves nothing to look up.
    if (component.Length != 0 && NT_SUCCESS(OpenDirectory(expansion, directory, handle.Address())))
    {
        FindLongName(expansion, handle.Get(), component, &name);
    }
    return AppendComponent(expansion, directory, name);
}

bool ExpandComponents(Expansion& expansion, const UNICODE_STRING& path)
{
    USHORT count = CharacterCount(path);
    for (USHORT i = 0; i < count; ++i)
    {
        if (path.Buffer[i] != L'\\')
        {
            continue;
        }
        USHORT end = static_cast<USHORT>(i + 1);
        while (end < count && path.Buffer[end] != L'\\')
        {
            ++end;
        }
        USHORT start = static_cast<USHORT>((i + 1) * sizeof(WCHAR));
        UNICODE_STRING directory = SubString(path, 0, start);
        UNICODE_STRING component = SubString(path, start, static_cast<USHORT>(end * sizeof(WCHAR) - start));
        if (!ExpandComponent(expansion, directory, component))
        {
            return false;
        }
    }
    return true;
}

NTSTATUS Expand(PCUNICODE_STRING path, PCWSTR openPrefix, CountedString* longPath)
{
    Expansion expansion = {
        openPrefix, {}, PoolPointer<FILE_BOTH_DIR_INFORMATION>::Allocate(DirectoryBufferBytes), longPath};
    bool complete = expansion.Entry && expansion.OpenPath.Allocate(PathBufferBytes) &&
                    longPath->Allocate(PathBufferBytes) && ExpandComponents(expansion, *path);
    if (!complete)
    {
        longPath->Free();
        return NoMemory();
    }
    NTSTATUS status = CTInsertElement(&Global.ProcessCache, path, &longPath->Get(), 0);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("KernelGetLongPathName CTInsertElement failed Key = %wZ Element = %wZ\n", path, &longPath->Get());
    }
    return STATUS_SUCCESS;
}
}

bool HasShortName(PCUNICODE_STRING path)
{
    return Contains(*path, L'~');
}

NTSTATUS KernelGetLongPathName(PCUNICODE_STRING path, CountedString* longPath)
{
    if (path->Length == 0)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (!HasShortName(path))
    {
        return CopyOf(path, longPath);
    }
    NTSTATUS status = CTLookupElement(&Global.ProcessCache, path, longPath, 0);
    // A record that lost its element for want of memory tells nothing.
    if (NT_SUCCESS(status) && longPath->Get().Buffer != nullptr)
    {
        return status;
    }
    UNICODE_STRING drivePattern = CountedView(DrivePathPattern);
    if (MatchNamePattern(path, &drivePattern))
    {
        return Expand(path, DosDevicesPrefix, longPath);
    }
    UNICODE_STRING devicePattern = CountedView(DevicePathPattern);
    if (MatchNamePattern(path, &devicePattern))
    {
        return Expand(path, L"", longPath);
    }
    return CopyOf(path, longPath);
}
