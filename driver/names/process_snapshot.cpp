#include "driver/names/process_snapshot.h"

#include "driver/core/system_routines.h"

NTSTATUS ProcessSnapshot::Take()
{
    PSYSTEM_PROCESS_INFORMATION records = nullptr;
    NTSTATUS status = QuerySystemInformation(&records);
    records_ = PoolPointer<SYSTEM_PROCESS_INFORMATION>(records);
    return status;
}
