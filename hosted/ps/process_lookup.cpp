// Looking up a running process by its id.
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ps/process_table.h"
#include "hosted/ps/query_hooks.h"

extern "C" NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process)
{
    hosted::RequireIrql(APC_LEVEL, "PsLookupProcessByProcessId");
    if (hosted::InjectFailure("PsLookupProcessByProcessId"))
    {
        return STATUS_INVALID_PARAMETER;
    }
    hosted::CallBeforeProcessLookup(ProcessId);
    hosted::Process* found = hosted::FindProcess(ProcessId);
    if (found == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    *Process = hosted::AsProcess(found);
    return STATUS_SUCCESS;
}
