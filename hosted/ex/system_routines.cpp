#include "hosted/ex/system_routines.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ldr/export_list.h"

#include <mutex>
#include <set>

namespace hosted
{
namespace
{
// Those that no image may import.
void* FindByNameOnly(WideView name)
{
    static const struct
    {
        WideView Name;
        void* Address;
    } routines[] = {
        {L"ZwQueryInformationProcess", reinterpret_cast<void*>(&ZwQueryInformationProcess)},
        {L"ZwQuerySystemInformation", reinterpret_cast<void*>(&ZwQuerySystemInformation)},
        {L"NtQuerySystemInformation", reinterpret_cast<void*>(&NtQuerySystemInformation)},
    };
    for (const auto& routine : routines)
    {
        if (routine.Name == name)
        {
            return routine.Address;
        }
    }
    return nullptr;
}

// Null for what no module of this kernel's own exports.
void* FindExport(WideView name)
{
    size_t count;
    const ExportedRoutine* routines = ExportedRoutines(&count);
    for (size_t index = 0; index < count; ++index)
    {
        const ExportedRoutine& routine = routines[index];
        if (std::string_view(routine.Module) == "ntoskrnl.exe" && Narrow(name) == routine.Name)
        {
            return routine.Address;
        }
    }
    return nullptr;
}

struct HiddenNames
{
    std::mutex Lock;
    std::set<WideString> Names;
};

HiddenNames& Hidden()
{
    static HiddenNames& hidden = *new HiddenNames;
    return hidden;
}
}

void HideSystemRoutine(WideView name)
{
    std::lock_guard lock(Hidden().Lock);
    Hidden().Names.insert(WideString(name));
}

void ShowAllSystemRoutines()
{
    std::lock_guard lock(Hidden().Lock);
    Hidden().Names.clear();
}
}

extern "C" PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "MmGetSystemRoutineAddress");
    if (SystemRoutineName == nullptr)
    {
        BugCheck("null-pointer", "MmGetSystemRoutineAddress without a name");
    }
    if (InjectFailure("MmGetSystemRoutineAddress"))
    {
        return nullptr;
    }
    WideView name = View(*SystemRoutineName);
    void* address = FindByNameOnly(name);
    if (address == nullptr)
    {
        address = FindExport(name);
    }
    std::lock_guard lock(Hidden().Lock);
    return Hidden().Names.contains(WideString(name)) ? nullptr : address;
}
