#include "hosted/io/request.h"

#include "hosted/io/file_object.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"

#include <cstring>

namespace hosted
{
namespace
{
constinit VolumeFilters* filters = nullptr;
}

VolumeFilters::VolumeFilters()
{
    if (filters != nullptr)
    {
        BugCheck("TWO_FILTER_MANAGERS", "requests are filtered already");
    }
    filters = this;
}

VolumeFilters* FiltersOfVolumes()
{
    return filters;
}

FileRequest NewFileRequest(PFILE_OBJECT file, UCHAR majorFunction, ULONG irpFlags)
{
    FileRequest request;
    std::memset(static_cast<void*>(&request), 0, sizeof(request));
    const FileState* state = StateOf(file);
    request.Target = VolumeOfFile(file);
    request.DataFlags = FLTFL_CALLBACK_DATA_IRP_OPERATION;
    request.Mode = state != nullptr ? state->Mode : static_cast<KPROCESSOR_MODE>(KernelMode);
    request.Parameters.IrpFlags = irpFlags;
    request.Parameters.MajorFunction = majorFunction;
    request.Parameters.TargetFileObject = file;
    return request;
}

NTSTATUS SendFileRequest(FileRequest& request, IO_STATUS_BLOCK* status)
{
    if (request.Target == nullptr)
    {
        *status = {};
        status->Status = STATUS_INVALID_DEVICE_REQUEST;
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const FLT_IO_PARAMETER_BLOCK& parameters = request.Parameters;
    const UCHAR major = parameters.MajorFunction;
    RequireIrql(major == IRP_MJ_CREATE ? PASSIVE_LEVEL : APC_LEVEL, "sending an operation");
    const NTSTATUS result =
        filters != nullptr ? filters->Send(request, status) : SendToFileSystem(request.Target, parameters, status);
    if ((major == IRP_MJ_WRITE && !(parameters.IrpFlags & IRP_PAGING_IO)) || major == IRP_MJ_SET_INFORMATION)
    {
        request.Target->Files->Settled(parameters.TargetFileObject);
    }
    return result;
}

NTSTATUS SendToFileSystem(Volume* volume, const FLT_IO_PARAMETER_BLOCK& parameters, IO_STATUS_BLOCK* status)
{
    FLT_IO_PARAMETER_BLOCK block = parameters;
    *status = {};
    const KIRQL before = CurrentIrql();
    const NTSTATUS result = volume->Files->Dispatch(block, *status);
    if (result != status->Status || CurrentIrql() != before)
    {
        BugCheck("FILE_SYSTEM_RESULT", "returned 0x%08x at IRQL %d, stored 0x%08x, was called at IRQL %d",
            static_cast<unsigned>(result), CurrentIrql(), static_cast<unsigned>(status->Status), before);
    }
    return result;
}
}
