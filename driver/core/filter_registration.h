// What the driver tells the Filter Manager about itself. IRQL PASSIVE_LEVEL.
#pragma once

#include <fltkernel.h>

// Fills the record, which points to tables that live as long as the driver.
void BuildFilterRegistration(PFLT_REGISTRATION registration, PFLT_FILTER_UNLOAD_CALLBACK unload);

// Local disk file systems only: STATUS_FLT_DO_NOT_ATTACH for anything else.
NTSTATUS NTAPI InstanceSetup(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS flags,
    DEVICE_TYPE volumeDeviceType, FLT_FILESYSTEM_TYPE volumeFileSystemType);
