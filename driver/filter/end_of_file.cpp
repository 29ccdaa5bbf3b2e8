#include "driver/filter/end_of_file.h"

#include "driver/filter/stream_cipher_context.h"
#include "driver/util/unlocked.h"

namespace
{
bool IsEndOfFileChange(PFLT_CALLBACK_DATA data)
{
    return data->Iopb->Parameters.SetFileInformation.FileInformationClass == FileEndOfFileInformation;
}
}

FLT_PREOP_CALLBACK_STATUS NTAPI PreSetInformation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*)
{
    StreamContextReference stream;
    bool follow = KeGetCurrentIrql() <= APC_LEVEL && stream.Find(objects) && IsEndOfFileChange(data);
    return follow ? FLT_PREOP_SUCCESS_WITH_CALLBACK : FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS NTAPI PostSetInformation(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID, FLT_POST_OPERATION_FLAGS)
{
    StreamContextReference stream;
    // A completion may run too high to look for the context. The next write then tells the size.
    bool follow = KeGetCurrentIrql() <= APC_LEVEL && NT_SUCCESS(data->IoStatus.Status) && IsEndOfFileChange(data);
    if (follow && stream.Find(objects))
    {
        auto information =
            static_cast<PFILE_END_OF_FILE_INFORMATION>(data->Iopb->Parameters.SetFileInformation.InfoBuffer);
        StoreUnlocked(stream->TrackedFileSize, information->EndOfFile.QuadPart);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}
