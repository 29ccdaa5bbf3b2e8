#include "tests/conformance/platform/test/not_asked.h"

namespace platform
{
std::span<const NotAsked> RoutinesNotAsked()
{
    static constexpr std::string_view NoAnswer = "called by the questions, but nothing that it does can be seen";
    static constexpr std::string_view NotInWine = "Wine does not have it, and a call ends the service's process";
    static constexpr std::string_view NeedsOperation = "Wine's Filter Manager never calls a filter, so there is no "
                                                       "operation to ask about";
    static constexpr NotAsked routines[] = {
        {"ExEventObjectType", "a variable, which the questions about ObReferenceObjectByHandle use"},
        {"ExFreePoolWithTag", NoAnswer},
        {"IoFreeMdl", NoAnswer},
        {"ObfDereferenceObject", NoAnswer},
        {"RtlVirtualUnwind", "called for faults only; the answers of ProbeForWrite rest on it"},
        {"__C_specific_handler", "called for faults only; the answers of ProbeForWrite rest on it"},
        {"FsRtlIsPagingFile", NotInWine},
        {"IoVolumeDeviceToDosName", NotInWine},
        {"RtlDeleteElementGenericTable", NotInWine},
        {"RtlInsertElementGenericTable", NotInWine},
        {"IofCompleteRequest", "requests reach a driver only when its entry routine has returned"},
        {"MmMapLockedPagesSpecifyCache", "needs locked pages, and no routine that the driver imports locks any"},
        {"FltAllocateContext", NotInWine},
        {"FltAllocatePoolAlignedWithTag", NeedsOperation},
        {"FltFreePoolAlignedWithTag", NeedsOperation},
        {"FltGetFileNameInformation", NeedsOperation},
        {"FltGetRequestorProcessIdEx", NeedsOperation},
        {"FltGetStreamContext", NeedsOperation},
        {"FltGetVolumeName", NeedsOperation},
        {"FltIsDirectory", NeedsOperation},
        {"FltParseFileNameInformation", NeedsOperation},
        {"FltReleaseContext", NeedsOperation},
        {"FltReleaseFileNameInformation", NeedsOperation},
        {"FltSetCallbackDataDirty", NeedsOperation},
        {"FltSetStreamContext", NeedsOperation},
        {"FltUnregisterFilter", NoAnswer},
    };
    return routines;
}
}
