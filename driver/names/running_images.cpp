#include "driver/names/running_images.h"

#include "driver/names/long_path_name.h"
#include "driver/names/process_image_name.h"

namespace
{
void PrintFailure(PCSTR text, NTSTATUS status)
{
    if (text != nullptr)
    {
        DbgPrint(text, status);
    }
}
}

bool FindRunningImage(HANDLE processId, const RunningImageTexts& texts, RunningImage* image)
{
    PoolPointer<UNICODE_STRING> name;
    NTSTATUS status = GetProcessImageNameFromProcessId(processId, &name, &image->Process);
    // A query that succeeds without asking for room gives no name.
    if (!NT_SUCCESS(status) || !name)
    {
        PrintFailure(texts.NoName, status);
        return false;
    }
    status = KernelGetLongPathName(name.Get(), &image->Path);
    if (!NT_SUCCESS(status))
    {
        PrintFailure(texts.NoLongPath, status);
        return false;
    }
    return true;
}
