#include "tests/unit/driver/stand_in.h"

#include <atomic>
#include <fltkernel.h>

namespace stand_in
{
const char Answer::NoFileNameInformation[] = "no file name information";
const char Answer::EmptyLinkTarget[] = "empty link target";
const char Answer::NoLinkTarget[] = "no link target";

namespace
{
std::atomic<const char*> current;

bool Is(const char* which)
{
    return current.load() == which;
}
}

Answer::Answer(const char* which)
{
    current = which;
}

Answer::~Answer()
{
    current = nullptr;
}
}

using stand_in::Answer;

extern "C"
{
NTSTATUS NTAPI __real_FltGetFileNameInformation(
    PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options, PFLT_FILE_NAME_INFORMATION* information);
NTSTATUS NTAPI __wrap_FltGetFileNameInformation(
    PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options, PFLT_FILE_NAME_INFORMATION* information)
{
    if (stand_in::Is(Answer::NoFileNameInformation))
    {
        *information = nullptr;
        return STATUS_SUCCESS;
    }
    return __real_FltGetFileNameInformation(data, options, information);
}

NTSTATUS NTAPI __real_ZwQuerySymbolicLinkObject(HANDLE link, PUNICODE_STRING target, PULONG length);
NTSTATUS NTAPI __wrap_ZwQuerySymbolicLinkObject(HANDLE link, PUNICODE_STRING target, PULONG length)
{
    if (stand_in::Is(Answer::EmptyLinkTarget))
    {
        *length = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (stand_in::Is(Answer::NoLinkTarget))
    {
        *length = 0;
        return STATUS_SUCCESS;
    }
    return __real_ZwQuerySymbolicLinkObject(link, target, length);
}
}
