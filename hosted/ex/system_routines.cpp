#include "hosted/ex/system_routines.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <mutex>
#include <set>

namespace host
{
namespace
{
struct SystemRoutine
{
    WideView Name;
    void* Address;
};

const SystemRoutine* FindRoutine(WideView name)
{
    static const SystemRoutine routines[] = {
        {L"ZwQueryInformationProcess", reinterpret_cast<void*>(&ZwQueryInformationProcess)},
        {L"ZwQuerySystemInformation", reinterpret_cast<void*>(&ZwQuerySystemInformation)},
        {L"NtQuerySystemInformation", reinterpret_cast<void*>(&NtQuerySystemInformation)},
    };
    for (const SystemRoutine& routine : routines)
    {
        if (routine.Name == name)
        {
            return &routine;
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
    using namespace host;
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
    const SystemRoutine* routine = FindRoutine(name);
    std::lock_guard lock(Hidden().Lock);
    return routine != nullptr && !Hidden().Names.contains(WideString(name)) ? routine->Address : nullptr;
}
