#include "driver/filter/create_decision.h"

#include "driver/config/browser_mode_list.h"
#include "driver/config/product_mode_list.h"
#include "driver/core/global_state.h"
#include "driver/log/elided_name.h"
#include "driver/log/log_channel.h"
#include "driver/names/full_path_name.h"
#include "driver/process/file_protection.h"
#include "driver/process/monitored_process.h"
#include "driver/util/debug_print.h"
#include "driver/util/name_matching.h"
#include "driver/util/pool.h"
#include "driver/util/unlocked.h"

namespace
{
constexpr USHORT LoggedPathBytes = 520;
constexpr char AllowedTrace[] = "Tarnveil - PID(%d) %ws %ws status = STATUS_SUCCESS path = %wZ\n";
constexpr char DeniedTrace[] = "Tarnveil - PID(%d) %ws %ws status = ACCESS_DENIED path = %wZ\n";

// One create as it is judged.
struct Opening
{
    PFLT_CALLBACK_DATA Data;
    PCUNICODE_STRING Path;
    HANDLE ProcessId;
};

struct SandboxView
{
    bool Inside;
    bool KeyIsSet;
};

SandboxView CompareWithSandbox(PCUNICODE_STRING path)
{
    SandboxView view = {};
    WithLock(Global.CreateDecisionLock,
        [&view, path]() REQUIRES_LOCK(Global.CreateDecisionLock)
        {
            const UNICODE_STRING& folder = Global.SandboxPath;
            const UNICODE_STRING& prefix = Global.PrefixSandboxPath;
            // The two comparisons fold letters beyond ASCII differently; either makes it the folder.
            view.Inside =
                (folder.Length != 0 && (CompareNameNoCase(path, &folder) == 0 || IsEqualNameNoCase(path, &folder))) ||
                (prefix.Length != 0 && IsPrefixNameNoCase(&prefix, path));
            view.KeyIsSet = LoadUnlocked(Global.KeyLength) != 0;
        });
    return view;
}

NTSTATUS WriteCreateRecord(ULONG level, const Opening& opening, NTSTATUS status)
{
    auto text = PoolPointer<WCHAR>::Allocate(LoggedPathBytes);
    if (!text)
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UNICODE_STRING path;
    path.Length = 0;
    path.MaximumLength = LoggedPathBytes;
    path.Buffer = text.Get();
    CopyNameElided(&path, opening.Path);
    return WriteLogRecord(level, opening.ProcessId, nullptr, L"%s %s status = 0x%08XL path = %wZ", SourceCreate,
        OperationPre, status, &path);
}

void TraceDecision(PCSTR format, const Opening& opening)
{
    TracePrint(format, ProcessIdNumber(opening.ProcessId), SourceCreate, OperationPre, opening.Path);
}

// The opener sees a denial; whether there is a record of it is up to the caller.
FLT_PREOP_CALLBACK_STATUS Refuse(const Opening& opening)
{
    opening.Data->IoStatus.Status = STATUS_ACCESS_DENIED;
    opening.Data->IoStatus.Information = 0;
    FltSetCallbackDataDirty(opening.Data);
    return FLT_PREOP_COMPLETE;
}

FLT_PREOP_CALLBACK_STATUS Deny(const Opening& opening, ULONG level)
{
    WriteCreateRecord(level, opening, STATUS_ACCESS_DENIED);
    return Refuse(opening);
}

FLT_PREOP_CALLBACK_STATUS JudgeInSandbox(const Opening& opening, bool keyIsSet)
{
    if (!keyIsSet)
    {
        return Deny(opening, LevelDeniedOpen);
    }
    ULONG settingId = 0;
    if (!FindMonitoredProcess(opening.ProcessId, MonitoredKindAny, &settingId))
    {
        TraceDecision(DeniedTrace, opening);
        return Deny(opening, LevelDeniedOpen);
    }
    // The browser product's data is for the browser's own programs, whoever else is under the sandbox.
    if (IsBrowserModeActive() && BRPLIsDataPath(opening.Path) && !NT_SUCCESS(BRPLLookup(opening.ProcessId)))
    {
        return Deny(opening, LevelTrace);
    }
    WriteCreateRecord(LevelAllowedOpen, opening, STATUS_SUCCESS);
    return LoadUnlocked(Global.EncryptionEnabled) == 1 ? FLT_PREOP_SUCCESS_WITH_CALLBACK
                                                       : FLT_PREOP_SUCCESS_NO_CALLBACK;
}

// Programs that have business in the product's own folder.
bool MayOpenProduct(HANDLE processId)
{
    ULONG settingId = 0;
    return FindMonitoredParent(processId, &settingId) ||
           FindMonitoredProcess(processId, MonitoredKindAny, &settingId) || NT_SUCCESS(HBPLLookup(processId));
}

FLT_PREOP_CALLBACK_STATUS JudgeOutside(const Opening& opening)
{
    BOOLEAN isProtected = FALSE;
    BOOLEAN isDenied = FALSE;
    CheckFileProtection(opening.ProcessId, opening.Path, &isProtected, &isDenied);
    if (isDenied)
    {
        TraceDecision(DeniedTrace, opening);
        return Deny(opening, LevelDeniedOpen);
    }
    if (isProtected)
    {
        TraceDecision(AllowedTrace, opening);
        WriteCreateRecord(LevelAllowedOpen, opening, STATUS_SUCCESS);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    // Without a record: every search of the disk would leave some.
    return HBPLIsProductPath(opening.Path) && !MayOpenProduct(opening.ProcessId) ? Refuse(opening)
                                                                                 : FLT_PREOP_SUCCESS_NO_CALLBACK;
}

bool IsJudged(PFILE_OBJECT fileObject)
{
    return KeGetCurrentIrql() == PASSIVE_LEVEL && !FlagOn(fileObject->Flags, FO_VOLUME_OPEN) &&
           !FsRtlIsPagingFile(fileObject);
}
}

FLT_PREOP_CALLBACK_STATUS NTAPI PreCreate(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*)
{
    if (!IsJudged(objects->FileObject))
    {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    CountedString path;
    if (!NT_SUCCESS(GetCreateTargetName(data, objects, &path)))
    {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    SandboxView sandbox = CompareWithSandbox(&path.Get());
    Opening opening = {data, &path.Get(), FltGetRequestorProcessIdEx(data)};
    return sandbox.Inside ? JudgeInSandbox(opening, sandbox.KeyIsSet) : JudgeOutside(opening);
}
