#include "driver/config/registry_configuration.h"

#include "driver/config/registry_value.h"
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

// Each reader returns false when the reading has to stop.

bool StoreKey(const KEY_VALUE_PARTIAL_INFORMATION* value)
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
    PoolPointer<KEY_VALUE_PARTIAL_INFORMATION> value;
    return NT_SUCCESS(ReadRegistryValue(key, &name, size, &value)) && StoreKey(value.Get());
}

// The value's characters up to its first NUL or its end.
UNICODE_STRING TextOfValue(KEY_VALUE_PARTIAL_INFORMATION* value)
{
    UNICODE_STRING text = {};
    text.Buffer = reinterpret_cast<PWSTR>(value->Data);
    ULONG characters = value->DataLength / sizeof(WCHAR);
    constexpr ULONG most = 0xfffe / sizeof(WCHAR);
    for (ULONG i = 0; i < characters && i < most && text.Buffer[i] != UNICODE_NULL; ++i)
    {
        text.Length = static_cast<USHORT>(text.Length + sizeof(WCHAR));
    }
    return text;
}

bool BuildPrefix()
{
    CountedString prefix;
    // The backslash is appended blindly, also to a path that ends in one.
    if (!prefix.Copy(Global.SandboxPath, Global.SandboxPath.Length + PathSpareBytes))
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
    PoolPointer<KEY_VALUE_PARTIAL_INFORMATION> value;
    if (!IsSizeAnswer(ProbeRegistryValue(key, &name, &size)) ||
        !NT_SUCCESS(ReadRegistryValue(key, &name, size, &value)))
    {
        return false;
    }
    UNICODE_STRING text = TextOfValue(value.Get());
    CountedString path;
    if (!path.Copy(text, text.Length + PathSpareBytes))
    {
        return false;
    }
    Global.SandboxPath = path.Detach();
    DbgPrint("SandboxPath %wZ\n", &Global.SandboxPath);
    return BuildPrefix();
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

NTSTATUS LoadConfiguration(PCUNICODE_STRING registryPath)
{
    InitializeGlobalState();
    KernelHandle key;
    if (CopyRegistryPath(registryPath) && NT_SUCCESS(OpenRegistryKey(&Global.RegistryPath, &key)) &&
        ReadCryptKey(key.Get()))
    {
        ReadSandboxPath(key.Get());
    }
    return STATUS_SUCCESS;
}
