#include "driver/core/filter_registration.h"

#include "driver/filter/create_decision.h"
#include "driver/filter/end_of_file.h"
#include "driver/filter/read_path.h"
#include "driver/filter/stream_cipher_context.h"
#include "driver/filter/write_path.h"
#include "driver/util/pool.h"

namespace
{
constinit const FLT_CONTEXT_REGISTRATION Contexts[] = {
    {FLT_STREAM_CONTEXT, 0, CleanupStreamContext, sizeof(StreamCipherContext), DriverPoolTag, nullptr, nullptr,
        nullptr},
    {FLT_CONTEXT_END, 0, nullptr, 0, 0, nullptr, nullptr, nullptr}};

constinit const FLT_OPERATION_REGISTRATION Operations[] = {{IRP_MJ_CREATE, 0, PreCreate, PostCreate, nullptr},
    {IRP_MJ_WRITE, 0, PreWrite, PostWrite, nullptr}, {IRP_MJ_READ, 0, PreRead, PostRead, nullptr},
    {IRP_MJ_SET_INFORMATION, 0, PreSetInformation, PostSetInformation, nullptr},
    {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
}

void BuildFilterRegistration(PFLT_REGISTRATION registration, PFLT_FILTER_UNLOAD_CALLBACK unload)
{
    *registration = {};
    registration->Size = sizeof(*registration);
    registration->Version = FLT_REGISTRATION_VERSION_0202;
    registration->ContextRegistration = Contexts;
    registration->OperationRegistration = Operations;
    registration->FilterUnloadCallback = unload;
    registration->InstanceSetupCallback = InstanceSetup;
}

NTSTATUS NTAPI InstanceSetup(
    PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE volumeDeviceType, FLT_FILESYSTEM_TYPE)
{
    return volumeDeviceType == FILE_DEVICE_DISK_FILE_SYSTEM ? STATUS_SUCCESS : STATUS_FLT_DO_NOT_ATTACH;
}
