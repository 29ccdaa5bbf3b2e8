#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"
#include "hosted/rtl/wide_string.h"

namespace
{
struct ExtendedVersion
{
    RTL_OSVERSIONINFOW Common;
    USHORT ServicePackMajor;
    USHORT ServicePackMinor;
    USHORT SuiteMask;
    UCHAR ProductType;
    UCHAR Reserved;
};
static_assert(sizeof(RTL_OSVERSIONINFOW) == 276);
static_assert(sizeof(ExtendedVersion) == 284);

constexpr ULONG PlatformNt = 2;
constexpr UCHAR Workstation = 1;
constexpr USHORT SuiteSingleUserTerminal = 0x100; // remote desktop for one user, which every workstation has
constexpr ULONG FirstServicePackBuild = 7601;
}

extern "C" NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW VersionInformation)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "RtlGetVersion");
    ULONG size = VersionInformation->dwOSVersionInfoSize;
    if (size != sizeof(RTL_OSVERSIONINFOW) && size != sizeof(ExtendedVersion))
    {
        BugCheck("version-size", "RtlGetVersion for a structure of %u bytes", size);
    }
    if (InjectFailure("RtlGetVersion"))
    {
        return STATUS_UNSUCCESSFUL;
    }
    const SystemModel& model = Model();
    bool servicePack = model.BuildNumber == FirstServicePackBuild;
    VersionInformation->dwMajorVersion = model.MajorVersion;
    VersionInformation->dwMinorVersion = model.MinorVersion;
    VersionInformation->dwBuildNumber = model.BuildNumber;
    VersionInformation->dwPlatformId = PlatformNt;
    WideView name = servicePack ? L"Service Pack 1" : L"";
    WideTraits::assign(VersionInformation->szCSDVersion, 128, 0);
    WideTraits::copy(VersionInformation->szCSDVersion, name.data(), name.size());
    if (size == sizeof(ExtendedVersion))
    {
        auto* extended = reinterpret_cast<ExtendedVersion*>(VersionInformation);
        extended->ServicePackMajor = servicePack ? 1 : 0;
        extended->ServicePackMinor = 0;
        extended->SuiteMask = SuiteSingleUserTerminal;
        extended->ProductType = Workstation;
        extended->Reserved = 0;
    }
    return STATUS_SUCCESS;
}
