// What of the Filter Manager needs no operation.
#include "tests/conformance/platform/questions/questions.h"

#include <fltkernel.h>

namespace questions
{
namespace
{
NTSTATUS NTAPI RefuseUnload(FLT_FILTER_UNLOAD_FLAGS)
{
    return STATUS_INVALID_DEVICE_REQUEST;
}

FLT_REGISTRATION Registration()
{
    static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
    FLT_REGISTRATION registration = {};
    registration.Size = sizeof(registration);
    registration.Version = FLT_REGISTRATION_VERSION_0202;
    registration.OperationRegistration = operations;
    registration.FilterUnloadCallback = RefuseUnload;
    return registration;
}

void AskRegistration(
    Answers& answers, const char* label, PDRIVER_OBJECT driver, const FLT_REGISTRATION& registration, bool start)
{
    PFLT_FILTER filter = nullptr;
    const NTSTATUS status = FltRegisterFilter(driver, &registration, &filter);
    answers.Line("FltRegisterFilter ", label, ": ", Status{status}, " ", Address{filter});
    if (NT_SUCCESS(status))
    {
        if (start)
        {
            answers.Line("FltStartFiltering ", label, ": ", Status{FltStartFiltering(filter)});
        }
        FltUnregisterFilter(filter);
    }
}
}

void AskFilter(Answers& answers, PDRIVER_OBJECT driver)
{
    FLT_REGISTRATION registration = Registration();
    AskRegistration(answers, "started", driver, registration, true);
    AskRegistration(answers, "anew", driver, registration, false);
    registration.Version = 0x0300;
    AskRegistration(answers, "of an unknown version", driver, registration, false);
}
}
