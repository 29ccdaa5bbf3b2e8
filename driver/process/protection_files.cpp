// The protected paths in the registry.

#include "driver/util/registry_value.h"
#include "driver/core/global_state.h"
#include "driver/process/file_protection.h"
#include "driver/util/counted_string.h"

namespace
{
constexpr ULONG TerminatorBytes = sizeof(WCHAR);

// The paths one after the other, each terminated, and an empty string at the end.
struct PathList
{
    PoolPointer<UCHAR> Text;
    ULONG Bytes;
    ULONG Paths;
};

ULONG ListBytes() REQUIRES_LOCK(Global.FileProtections.Lock)
{
    ULONG bytes = TerminatorBytes;
    Global.FileProtections.Entries.ForEach(
        [&bytes](FileProtection* protection) { bytes += protection->Path.Length + TerminatorBytes; });
    return bytes;
}

NTSTATUS CollectPaths(PathList* list)
{
    WithLock(Global.FileProtections.Lock,
        [list]() REQUIRES_LOCK(Global.FileProtections.Lock)
        {
            list->Bytes = ListBytes();
            list->Paths = Global.FileProtections.Entries.Count();
            list->Text = PoolPointer<UCHAR>::Allocate(list->Bytes);
            if (!list->Text)
            {
                return;
            }
            PUCHAR next = list->Text.Get();
            Global.FileProtections.Entries.ForEach(
                [&next](FileProtection* protection)
                {
                    RtlCopyMemory(next, protection->Path.Buffer, protection->Path.Length);
                    next += protection->Path.Length + TerminatorBytes;
                });
        });
    if (!list->Text)
    {
        DbgPrint("Tarnveil - REG_MULTI_SZ buffer allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

NTSTATUS StorePaths(const PathList& list)
{
    KernelHandle key;
    NTSTATUS status = OpenRegistryKey(&Global.RegistryPath, KEY_ALL_ACCESS, &key);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - ZwOpenKey failed. NTStatus = %x\n", status);
        return status;
    }
    UNICODE_STRING name = CountedView(ProtectionFilesValueName);
    status = ZwSetValueKey(key.Get(), &name, 0, REG_MULTI_SZ, list.Text.Get(), list.Bytes);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - ZwSetValueKey failed. ValueName = %wZ DataSize = %d NTStatus = %x\n", &name, list.Bytes,
            status);
        return status;
    }
    TracePrint("Tarnveil - ZwSetValueKey ValueName = %wZ DataSize = %d NTStatus = %x\n", &name, list.Bytes, status);
    return status;
}

bool HasGrownBeyond(ULONG paths)
{
    bool grown = false;
    WithLock(Global.FileProtections.Lock, [&grown, paths]() REQUIRES_LOCK(Global.FileProtections.Lock)
        { grown = Global.FileProtections.Entries.Count() > paths; });
    return grown;
}
}

NTSTATUS SaveProtectionFiles()
{
    PathList list;
    NTSTATUS status = STATUS_SUCCESS;
    do
    {
        status = CollectPaths(&list);
        if (NT_SUCCESS(status))
        {
            status = StorePaths(list);
        }
        // Another request may have stored a longer list between the two steps, which this one has then overwritten.
    } while (NT_SUCCESS(status) && HasGrownBeyond(list.Paths));
    return status;
}
