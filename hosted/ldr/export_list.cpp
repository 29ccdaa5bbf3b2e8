#include "hosted/ldr/export_list.h"

#include <fltkernel.h>

namespace hosted
{
namespace
{
constexpr const char* Ntoskrnl = "ntoskrnl.exe";
constexpr const char* FilterManager = "FLTMGR.SYS";

#define ROUTINE(Module, Name) {Module, #Name, reinterpret_cast<void*>(&::Name), false, false},
#define RENAMED(Module, Name, Here) {Module, #Name, reinterpret_cast<void*>(&::Here), false, false},
#define VARIABLE(Module, Name) {Module, #Name, static_cast<void*>(::Name), false, true},
#define IMAGE_ONLY(Module, Name) {Module, #Name, nullptr, true, false},
}

const ExportedRoutine* ExportedRoutines(size_t* count)
{
    // Made at the first call: the addresses of variables are known only then.
    static const ExportedRoutine routines[] = {HOSTED_EXPORTS(ROUTINE, RENAMED, VARIABLE, IMAGE_ONLY)};
    *count = sizeof(routines) / sizeof(routines[0]);
    return routines;
}
}
