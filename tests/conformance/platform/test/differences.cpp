#include "tests/conformance/platform/test/differences.h"

namespace platform
{
namespace
{
constexpr std::string_view FormatPage = "printf and wprintf functions, syntax of a format: flags and types";
constexpr std::string_view QueryValuePage = "ZwQueryValueKey (wdm.h), return values";
constexpr std::string_view ProbePage = "ProbeForWrite (wdm.h)";
constexpr std::string_view NotifyPage = "PsSetCreateProcessNotifyRoutineEx (ntddk.h), return values";
constexpr std::string_view ObjectNamesPage = "Introduction to MS-DOS Device Names";

constexpr Difference Differences[] = {
    // Strings and version.
    {"RtlUpcaseUnicodeChar *", "*", 191,
        "Wine's table follows a later Unicode than that of 6.1, and leaves the final sigma alone",
        "exFAT file system (Win32), recommended up-case table"},
    {"DbgPrint %wZ", "counted", 1, "Wine's formatter does not know counted strings", "DbgPrint (wdm.h), %wZ"},
    {"_vsnwprintf %*wZ", "*count>*", 2, "Wine's formatter does not know counted strings", FormatPage},
    {"_vsnwprintf %lZ", "*<003c>count>*", 1, "Wine's formatter does not know counted strings", FormatPage},
    {"_vsnwprintf %hZ", "*<003c>abc>*", 1, "Wine's formatter does not know counted strings", FormatPage},
    {"_vsnwprintf %wZ *", "*<003c>(null)>*", 2, "Wine's formatter does not know counted strings", FormatPage},
    {"_vsnwprintf %08.3d", "*<003c>     007>*", 1, "with a precision the flag 0 is ignored", FormatPage},
    {"RtlGetVersion 284 bytes product", "0001", 1, "Wine names a server; the model is a workstation",
        "OSVERSIONINFOEXW (wdm.h), wProductType"},

    // The registry.
    {"ZwQueryValueKey writes * class 0 room *", "[]", 133,
        "Wine fills in what there is room for below the fixed part, and the name of a value that is missing",
        QueryValuePage},
    {"ZwQueryValueKey writes * class 1 room *", "[]", 229,
        "Wine fills in what there is room for below the fixed part, and the name of a value that is missing",
        QueryValuePage},
    {"ZwQueryValueKey writes * class 2 room *", "[]", 132, "Wine fills in what there is room for below the fixed part",
        QueryValuePage},
    {"ZwQueryValueKey Dword class 1 room *", "* 0024", 41,
        "here data behind a name begins on a multiple of four; where is for DataOffset to say",
        "KEY_VALUE_FULL_INFORMATION (wdm.h)"},
    {"ZwQueryValueKey writes Dword class 1 room *", "[000000000400000020*]", 21,
        "here data behind a name begins on a multiple of four; where is for DataOffset to say",
        "KEY_VALUE_FULL_INFORMATION (wdm.h)"},
    {"ZwQueryValueKey by other case class 0", "*53007400720069006e006700]", 1,
        "the answer is the entry's name; Wine repeats the name that was asked for",
        "KEY_VALUE_BASIC_INFORMATION (wdm.h)"},
    {"ZwSetValueKey a shorter list read back by class ?", "*53006500740020006c00690073007400*", 2,
        "the answer is the entry's name; Wine repeats the name that was asked for",
        "KEY_VALUE_BASIC_INFORMATION (wdm.h)"},

    // The name space and files.
    {"IoCreateSymbolicLink of a name taken*", "c0000035", 2,
        "Wine follows the link that is there, and so finds the path to its target missing",
        "IoCreateSymbolicLink (wdm.h); NTSTATUS values, STATUS_OBJECT_NAME_COLLISION"},
    {"ZwOpenSymbolicLinkObject by its global directory", "00000000 handle yes", 1, "Wine has no directory of that name",
        ObjectNamesPage},
    {"ZwOpenSymbolicLinkObject below a device", "c0000024 handle no", 1,
        "what is below a device is no link, whether the device has it or not",
        "NTSTATUS values, STATUS_OBJECT_TYPE_MISMATCH"},
    {"ZwOpenFile missing drive", "c000003a", 1, "it is the path that is missing, since more of the name follows",
        "NTSTATUS values, STATUS_OBJECT_PATH_NOT_FOUND"},
    {"ZwQueryDirectoryFile by an empty name *", "00000000 \".*\"", 3, "an empty pattern stands for all names",
        "[MS-FSA] Server Requests Querying a Directory, FileNamePattern"},
    {"IoCreateDevice * fields", "type 3 * flags 008* stack 1 *", 2,
        "Wine sets neither the type nor the flag of a device under initialisation",
        "IoCreateDevice (wdm.h); DEVICE_OBJECT"},
    {"IoCreateDevice named extension", "null bytes 0", 1, "Wine sets no size, and an address where there is nothing",
        "DEVICE_OBJECT (wdm.h), Size and DeviceExtension"},
    {"IoCreateDevice without a name extension", "not null bytes 40", 1, "Wine sets no size",
        "DEVICE_OBJECT (wdm.h), Size and DeviceExtension"},

    // Processes.
    {"??QuerySystemInformation first is the idle process", "yes", 2, "Wine has no idle process",
        "not documented; the process 0 stands first in every such list"},
    {"??QuerySystemInformation steps aligned", "yes cover threads yes", 2, "Wine's records follow each other unaligned",
        "x64 ABI conventions: the records hold pointers, which stand at multiples of eight"},
    {"ZwQueryInformationProcess by a handle without access", "c0000004", 1,
        "Wine's kernel calls are a program's, so that access is checked",
        "Using Nt and Zw Versions of the Native System Services Routines"},
    {"ZwQueryInformationProcess image is on a device", "yes", 1, "Wine names the file by its drive",
        "ZwQueryInformationProcess, ProcessImageFileName; as GetProcessImageFileName returns it"},
    {"ZwQueryInformationProcess image string", "*room less length 2 needed less length 18 terminated yes", 1,
        "here the name is terminated, which needs room; callers may rely on Length alone",
        "ZwQueryInformationProcess, ProcessImageFileName"},
    {"PsSetCreateProcessNotifyRoutineEx again", "c000000d", 1, "Wine calls nothing back, and so keeps no list",
        NotifyPage},
    {"PsSetCreateProcessNotifyRoutineEx removed again", "c000007a", 1, "Wine calls nothing back, and so keeps no list",
        "PsRemoveLoadImageNotifyRoutine (ntddk.h), of the same family; the routine's own page is silent"},

    {"FltRegisterFilter of an unknown version", "c000000d null", 1, "Wine looks at no version",
        "FltRegisterFilter (fltkernel.h), return values"},

    // Objects.
    {"ObReferenceObjectByHandle of a key as an event for a program", "c0000024 null", 1,
        "Wine does not reference objects for user mode", "ObReferenceObjectByHandle (wdm.h), return values"},
    {"ObReferenceObjectByHandle of a bad handle for a program", "c0000008 null", 1,
        "Wine does not reference objects for user mode", "ObReferenceObjectByHandle (wdm.h), return values"},
    {"KeInitializeEvent *", "type ? words 6 state ? nobody waits yes", 4,
        "Wine fills in only what it reads itself of an opaque structure", "KeInitializeEvent (wdm.h); Event Objects"},
    {"ExAcquireFastMutex", "count 0 owner not null level 1", 1, "Wine neither notes the owner nor has levels",
        "Fast Mutexes and Guarded Mutexes"},

    // Memory.
    {"ExAllocatePoolWithTag * on a page", "yes", 8, "Wine aligns large allocations as small ones",
        "ExAllocatePoolWithTag (wdm.h), remarks"},
    {"IoAllocateMdl * flags", "0008", 16, "Wine sets no flags in an opaque field", "Using MDLs"},
    {"IoAllocateMdl * size covers pages", "yes", 16, "Wine's size is another than MmInitializeMdl sets",
        "MmInitializeMdl and MmSizeOfMdl (wdm.h)"},
    {"MmBuildMdlForNonPagedPool *", "mapped yes non-paged yes no process yes", 16, "Wine does nothing here",
        "MmBuildMdlForNonPagedPool (wdm.h)"},
    {"KeExpandKernelStackAndCallout of too much", "c00000f1 calls 0", 1, "Wine looks at no size",
        "KeExpandKernelStackAndCallout (ntddk.h), STATUS_INVALID_PARAMETER_3"},
    {"ProbeForWrite misaligned *", "80000002", 3, "Wine probes nothing", ProbePage},
    {"ProbeForWrite of null", "c0000005", 1, "Wine probes nothing", ProbePage},
    {"ProbeForWrite of the kernel's", "c0000005", 1, "Wine probes nothing", ProbePage},
    {"ProbeForWrite a* the end of *", "c0000005", 2, "Wine probes nothing", ProbePage},
};
}

std::span<const Difference> KnownDifferences()
{
    return Differences;
}

bool IsLike(std::string_view text, std::string_view pattern)
{
    if (pattern.empty())
    {
        return text.empty();
    }
    if (pattern[0] == '*')
    {
        return IsLike(text, pattern.substr(1)) || (!text.empty() && IsLike(text.substr(1), pattern));
    }
    return !text.empty() && (pattern[0] == '?' || pattern[0] == text[0]) && IsLike(text.substr(1), pattern.substr(1));
}
}
