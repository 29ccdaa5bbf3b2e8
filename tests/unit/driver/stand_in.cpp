#include "tests/unit/driver/stand_in.h"

#include "driver/config/base64.h"
#include "driver/names/name_cache.h"
#include "driver/process/process_scan.h"

#include <atomic>
#include <fltkernel.h>

namespace stand_in
{
const char Answer::NoFileNameInformation[] = "no file name information";
const char Answer::EmptyLinkTarget[] = "empty link target";
const char Answer::NoLinkTarget[] = "no link target";
const char Answer::FailCacheInitialization[] = "cache initialization fails";
const char Answer::FailCacheCount[] = "cache count fails";
const char Answer::FailBase64[] = "base64 fails";
const char Answer::FailChildrenScan[] = "children scan fails";

namespace
{
std::atomic<const char*> current;

bool Is(const char* which)
{
    return current.load() == which;
}
}

Answer::Answer(const char* which)
{
    current = which;
}

Answer::~Answer()
{
    current = nullptr;
}
}

using stand_in::Answer;

extern "C"
{
NTSTATUS NTAPI __real_FltGetFileNameInformation(
    PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options, PFLT_FILE_NAME_INFORMATION* information);
NTSTATUS NTAPI __wrap_FltGetFileNameInformation(
    PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options, PFLT_FILE_NAME_INFORMATION* information)
{
    if (stand_in::Is(Answer::NoFileNameInformation))
    {
        *information = nullptr;
        return STATUS_SUCCESS;
    }
    return __real_FltGetFileNameInformation(data, options, information);
}

NTSTATUS NTAPI __real_ZwQuerySymbolicLinkObject(HANDLE link, PUNICODE_STRING target, PULONG length);
NTSTATUS NTAPI __wrap_ZwQuerySymbolicLinkObject(HANDLE link, PUNICODE_STRING target, PULONG length)
{
    if (stand_in::Is(Answer::EmptyLinkTarget))
    {
        *length = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (stand_in::Is(Answer::NoLinkTarget))
    {
        *length = 0;
        return STATUS_SUCCESS;
    }
    return __real_ZwQuerySymbolicLinkObject(link, target, length);
}

NTSTATUS __real__Z12CTInitializeP10CacheTable(CacheTable* table);
NTSTATUS __wrap__Z12CTInitializeP10CacheTable(CacheTable* table)
{
    const NTSTATUS status = __real__Z12CTInitializeP10CacheTable(table);
    return stand_in::Is(Answer::FailCacheInitialization) ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS __real__Z17CTGetElementCountP10CacheTablePj(CacheTable* table, PULONG count);
NTSTATUS __wrap__Z17CTGetElementCountP10CacheTablePj(CacheTable* table, PULONG count)
{
    return stand_in::Is(Answer::FailCacheCount) ? STATUS_UNSUCCESSFUL
                                                : __real__Z17CTGetElementCountP10CacheTablePj(table, count);
}

bool __real__Z12DecodeBase64PKwjPhPj(PCWSTR text, ULONG count, PUCHAR output, PULONG outputBytes);
bool __wrap__Z12DecodeBase64PKwjPhPj(PCWSTR text, ULONG count, PUCHAR output, PULONG outputBytes)
{
    return !stand_in::Is(Answer::FailBase64) && __real__Z12DecodeBase64PKwjPhPj(text, count, output, outputBytes);
}

NTSTATUS __real__Z30RegistMonitoredChildrenProcessPK27_SYSTEM_PROCESS_INFORMATION(
    const SYSTEM_PROCESS_INFORMATION* snapshot);
NTSTATUS __wrap__Z30RegistMonitoredChildrenProcessPK27_SYSTEM_PROCESS_INFORMATION(
    const SYSTEM_PROCESS_INFORMATION* snapshot)
{
    return stand_in::Is(Answer::FailChildrenScan)
               ? STATUS_UNSUCCESSFUL
               : __real__Z30RegistMonitoredChildrenProcessPK27_SYSTEM_PROCESS_INFORMATION(snapshot);
}
}
