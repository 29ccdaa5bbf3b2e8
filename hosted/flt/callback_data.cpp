#include "hosted/flt/callback_data.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"

namespace hosted
{
ShownOperation& OperationOf(PFLT_CALLBACK_DATA data, const char* routine)
{
    if (data == nullptr)
    {
        BugCheck("FLT_CALLBACK_DATA", "%s: no callback data", routine);
    }
    auto* shown = CONTAINING_RECORD(data, ShownOperation, Data);
    if (shown->Signature != ShownSignature)
    {
        BugCheck("FLT_CALLBACK_DATA", "%s: %p belongs to no operation under way", routine, static_cast<void*>(data));
    }
    return *shown;
}
}

using namespace hosted;

extern "C" void NTAPI FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    RequireIrql(DISPATCH_LEVEL, "FltSetCallbackDataDirty");
    OperationOf(Data, "FltSetCallbackDataDirty").Data.Flags |= FLTFL_CALLBACK_DATA_DIRTY;
}

extern "C" HANDLE NTAPI FltGetRequestorProcessIdEx(PFLT_CALLBACK_DATA CallbackData)
{
    RequireIrql(DISPATCH_LEVEL, "FltGetRequestorProcessIdEx");
    const ShownOperation& shown = OperationOf(CallbackData, "FltGetRequestorProcessIdEx");
    return FromThread(shown.Data.Thread)->Owner->Id;
}
