// Registry routines that the platform headers do not declare yet.
#pragma once

#include <ntifs.h>

// The title index has no meaning and is ignored. PASSIVE_LEVEL. STATUS_INVALID_HANDLE, STATUS_OBJECT_TYPE_MISMATCH,
// STATUS_KEY_DELETED.
extern "C" NTSTATUS NTAPI ZwSetValueKey(
    HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data, ULONG DataSize);
