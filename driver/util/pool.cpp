#include "driver/util/pool.h"

POOL_TYPE DefaultPoolType = NonPagedPool;
ULONG DefaultMdlProtection = 0;
BOOLEAN PoolZeroingNative = FALSE;

namespace
{
// The information class by which a system tells that its pool honours the zero-allocation flag by itself.
constexpr auto SystemPoolZeroingInformation = static_cast<SYSTEM_INFORMATION_CLASS>(227);

typedef NTSTATUS(NTAPI* QuerySystemRoutine)(SYSTEM_INFORMATION_CLASS kind, PVOID buffer, ULONG length, PULONG required);

BOOLEAN SystemZeroesPool()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"NtQuerySystemInformation");
    auto query = reinterpret_cast<QuerySystemRoutine>(MmGetSystemRoutineAddress(&name));
    if (query == nullptr)
    {
        return FALSE;
    }
    UCHAR zeroes = 0;
    ULONG required = 0;
    NTSTATUS status = query(SystemPoolZeroingInformation, &zeroes, sizeof(zeroes), &required);
    return NT_SUCCESS(status) && zeroes != 0;
}
}

void InitializePoolPolicy()
{
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    if (!NT_SUCCESS(RtlGetVersion(&version)))
    {
        version.dwMajorVersion = 5;
        version.dwMinorVersion = 0;
    }
    PoolZeroingNative = SystemZeroesPool();

    bool hasNonExecutablePool =
        version.dwMajorVersion > 6 || (version.dwMajorVersion == 6 && version.dwMinorVersion >= 2);
    DefaultPoolType = hasNonExecutablePool ? NonPagedPoolNx : NonPagedPool;
    DefaultMdlProtection = hasNonExecutablePool ? MdlMappingNoExecute : 0;
}

PVOID AllocatePool(SIZE_T bytes)
{
    // Older systems ignore the flag, hence the explicit clearing.
    auto type = static_cast<POOL_TYPE>(DefaultPoolType | POOL_ZERO_ALLOCATION);
    PVOID memory = ExAllocatePoolWithTag(type, bytes, DriverPoolTag);
    if (memory != nullptr && !PoolZeroingNative)
    {
        RtlZeroMemory(memory, bytes);
    }
    return memory;
}

void FreePool(PVOID memory)
{
    if (memory != nullptr)
    {
        ExFreePoolWithTag(memory, DriverPoolTag);
    }
}
