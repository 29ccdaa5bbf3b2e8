// Following processes as they start and exit.
#pragma once

#include <ntifs.h>

// For PsSetCreateProcessNotifyRoutineEx; createInfo is null on exit. IRQL PASSIVE_LEVEL, on the creating or exiting
// thread, no locks held.
void NTAPI OnProcessNotify(PEPROCESS process, HANDLE processId, PPS_CREATE_NOTIFY_INFO createInfo);
