#include "hosted/machine/control_device.h"

#include "hosted/io/file.h"

namespace hosted
{
NTSTATUS OpenControlDevice(PFILE_OBJECT* file)
{
    OpenRequest request;
    request.Path = ControlDevicePath;
    request.DesiredAccess = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE;
    request.Options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE;
    return OpenFile(request, file);
}
}
