#include "driver/config/registry_configuration.h"

#include "driver/config/product_mode_list.h"
#include "driver/util/registry_value.h"
#include "driver/core/global_state.h"
#include "driver/util/counted_string.h"
#include "driver/util/unlocked.h"

#include <tarnveil/control.h>

namespace
{
constexpr ULONG Key128ValueBytes = TARNVEIL_KEY_INPUT_128;
constexpr ULONG Key192ValueBytes = TARNVEIL_KEY_INPUT_192;
constexpr ULONG Key256ValueBytes = TARNVEIL_KEY_INPUT_256;

// Room in a path's buffer behind its text.
constexpr SIZE_T PathSpareBytes = 4;
constexpr SIZE_T BackslashBytes = sizeof(WCHAR);

// What a counted string can show; a longer stored path cannot be that of any file.
constexpr SIZE_T LongestPathBytes = 0xfffe;

// Each reader returns false when the reading has to stop.

bool StoreKey(const RegistryValue& value)
{
    ULONG bytes = value->DataLength;
    ULONG keyLength = bytes - 1;
    if (bytes != Key128ValueBytes && bytes != Key192ValueBytes && bytes != Key256ValueBytes)
    {
        // The length is kept all the same: a broken stored key must not be overridden by a request.
        StoreUnlocked(Global.KeyLength, keyLength);
        DbgPrint("KeyLength fail %d\n", keyLength);
        return false;
    }
    RtlCopyMemory(Global.CryptKey, value->Data, keyLength);
    // A 192-bit key's mask byte is the one behind the value, which the reader keeps zeroed.
    ULONG maskIndex = bytes == Key192ValueBytes ? bytes : keyLength;
    StoreUnlocked(Global.XorByte, value->Data[maskIndex]);
    StoreUnlocked(Global.KeyLength, keyLength);
    return true;
}

bool ReadCryptKey(HANDLE key)
{
    UNICODE_STRING name = CountedView(L"SandboxCryptKey");
    ULONG size = 0;
    NTSTATUS status = ProbeRegistryValue(key, &name, &size);
    DbgPrint("SandboxCryptKey Query %x\n", status);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND)
    {
        return true;
    }
    if (!IsSizeAnswer(status))
    {
        return false;
    }
    RegistryValue value = AllocateRegistryValue(size);
    return value && NT_SUCCESS(QueryRegistryValue(key, &name, size, value)) && StoreKey(value);
}

bool BuildPrefix()
{
    CountedString prefix;
    // The backslash is appended blindly, also to a path that ends in one.
    if (!prefix.Copy(Global.SandboxPath, Global.SandboxPath.Length + BackslashBytes + PathSpareBytes))
    {
        return false;
    }
    prefix.Append(L"\\");
    Global.PrefixSandboxPath = prefix.Detach();
    DbgPrint("PrefixSandboxPath %wZ\n", &Global.PrefixSandboxPath);
    return true;
}

bool ReadSandboxPath(HANDLE key)
{
    UNICODE_STRING name = CountedView(L"SandboxPath");
    ULONG size = 0;
    if (!IsSizeAnswer(ProbeRegistryValue(key, &name, &size)))
    {
        return false;
    }
    RegistryValue value = AllocateRegistryValue(size);
    if (!value || !NT_SUCCESS(QueryRegistryValue(key, &name, size, value)))
    {
        return false;
    }
    UNICODE_STRING text = TextOfValue(value);
    CountedString path;
    if (!path.Copy(text, text.Length + PathSpareBytes))
    {
        return false;
    }
    Global.SandboxPath = path.Detach();
    DbgPrint("SandboxPath %wZ\n", &Global.SandboxPath);
    // Its failure leaves the product's own programs unknown, which is no reason to go without the rest.
    HBPLBuild(Global.SandboxPath);
    return BuildPrefix();
}

void ProtectFile(const UNICODE_STRING& path)
{
    FileProtection* protection = nullptr;
    if (!NT_SUCCESS(FindFileProtection(&path, &protection)))
    {
        AddNewFileProtection(&path);
    }
}

// Up to the first empty string. A last string without its terminator is dropped. Half a character at the end counts as
// a whole one with the zeroed byte that the reader keeps behind the value.
void ProtectFiles(const RegistryValue& paths)
{
    auto text = reinterpret_cast<PWSTR>(paths->Data);
    ULONG count = paths->DataLength / sizeof(WCHAR) + paths->DataLength % sizeof(WCHAR);
    ULONG start = 0;
    for (ULONG i = 0; i < count; ++i)
    {
        if (text[i] != UNICODE_NULL)
        {
            continue;
        }
        if (i == start)
        {
            return;
        }
        SIZE_T bytes = static_cast<SIZE_T>(i - start) * sizeof(WCHAR);
        if (bytes <= LongestPathBytes)
        {
            UNICODE_STRING path;
            path.Length = static_cast<USHORT>(bytes);
            path.MaximumLength = path.Length;
            path.Buffer = text + start;
            ProtectFile(path);
        }
        start = i + 1;
    }
}

void PrintQueryFailure(PCUNICODE_STRING name, NTSTATUS status)
{
    DbgPrint("Tarnveil - ZwQueryValueKey ValueName = %wZ NTStatus = %x\n", name, status);
}

void ReadProtectionFiles(HANDLE key)
{
    UNICODE_STRING name = CountedView(ProtectionFilesValueName);
    ULONG size = 0;
    NTSTATUS status = AskRegistryValueSize(key, &name, &size);
    if (!IsSizeAnswer(status))
    {
        PrintQueryFailure(&name, status);
        return;
    }
    RegistryValue paths = AllocateRegistryValue(size);
    if (!paths)
    {
        DbgPrint("Tarnveil - ProtectionFiles allocate error\n");
        return;
    }
    status = QueryRegistryValue(key, &name, size, paths);
    if (!NT_SUCCESS(status))
    {
        PrintQueryFailure(&name, status);
    }
    else if (paths->Type != REG_MULTI_SZ)
    {
        DbgPrint("Tarnveil - REG_XXX type = %08x\n", paths->Type);
    }
    else if (paths->DataLength == 0)
    {
        DbgPrint("Tarnveil - DataLength = Zero\n");
    }
    else
    {
        ProtectFiles(paths);
    }
}

bool CopyRegistryPath(PCUNICODE_STRING registryPath)
{
    CountedString copy;
    if (!copy.Copy(*registryPath, registryPath->Length))
    {
        return false;
    }
    Global.RegistryPath = copy.Detach();
    return true;
}
}

void LoadConfiguration(PCUNICODE_STRING registryPath)
{
    InitializeGlobalState();
    KernelHandle key;
    if (CopyRegistryPath(registryPath) && NT_SUCCESS(OpenRegistryKey(&Global.RegistryPath, KEY_READ, &key)) &&
        ReadCryptKey(key.Get()) && ReadSandboxPath(key.Get()))
    {
        ReadProtectionFiles(key.Get());
    }
}
