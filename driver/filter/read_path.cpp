#include "driver/filter/read_path.h"

#include "driver/core/global_state.h"
#include "driver/filter/stream_cipher.h"
#include "driver/filter/swap_buffer.h"
#include "driver/util/pool.h"
#include "driver/util/unlocked.h"

namespace
{
bool MayBeEnciphered(PFLT_CALLBACK_DATA data)
{
    return !FLT_IS_FASTIO_OPERATION(data) && IsPagingOperation(data) && data->Iopb->Parameters.Read.Length != 0 &&
           KeGetCurrentIrql() <= APC_LEVEL;
}

// False when the read has to go on with the caller's own buffer.
bool SwapReadBuffer(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, StreamContextReference& stream, PVOID* completionContext)
{
    auto& read = data->Iopb->Parameters.Read;
    PUCHAR callerData = CallerDataAddress(read.MdlAddress, read.ReadBuffer);
    ULONG newLength = static_cast<ULONG>(ALIGN_UP_BY(read.Length, CipherBlockBytes));
    // A length in the last block below 4 GiB cannot be rounded up.
    if (callerData == nullptr || newLength < read.Length)
    {
        return false;
    }
    SwapBuffer buffer(objects->Instance);
    if (!buffer.Allocate(newLength, read.Length))
    {
        return false;
    }
    auto swap = PoolPointer<ReadSwapContext>::Allocate();
    if (!swap)
    {
        return false;
    }
    swap->CallerData = callerData;
    swap->CallerBuffer = read.ReadBuffer;
    swap->CallerMdl = read.MdlAddress;
    swap->CallerLength = read.Length;
    swap->Stream = stream.Detach();
    buffer.MoveTo(swap.Get());

    read.ReadBuffer = swap->NewBuffer;
    read.MdlAddress = swap->NewMdl;
    read.Length = newLength;
    *completionContext = swap.Detach();
    FltSetCallbackDataDirty(data);
    return true;
}

void Decipher(PFLT_CALLBACK_DATA data, ReadSwapContext* swap)
{
    auto& read = data->Iopb->Parameters.Read;
    if (FlagOn(data->Iopb->MinorFunction, IRP_MN_MDL | IRP_MN_COMPLETE) || read.Length == 0)
    {
        return;
    }
    CallerSpan caller = {swap->CallerData, swap->CallerLength};
    DecipherSpan(swap->Stream->DecryptionSchedule, LoadUnlocked(Global.XorByte),
        static_cast<const UCHAR*>(swap->NewBuffer), static_cast<ULONG>(data->IoStatus.Information), caller);
    // The rounded length may have let the file system transfer more than the caller has room for.
    if (data->IoStatus.Information > swap->CallerLength)
    {
        data->IoStatus.Information = swap->CallerLength;
    }
    read.ReadBuffer = swap->CallerBuffer;
    read.MdlAddress = swap->CallerMdl;
    read.Length = swap->CallerLength;
}
}

FLT_PREOP_CALLBACK_STATUS NTAPI PreRead(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext)
{
    StreamContextReference stream;
    bool swapped = MayBeEnciphered(data) && stream.Find(objects) && IsUsable(stream->DecryptionSchedule) &&
                   SwapReadBuffer(data, objects, stream, completionContext);
    return swapped ? FLT_PREOP_SUCCESS_WITH_CALLBACK : FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS NTAPI PostRead(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID completionContext, FLT_POST_OPERATION_FLAGS)
{
    auto swap = static_cast<ReadSwapContext*>(completionContext);
    if (swap == nullptr)
    {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    if (NT_SUCCESS(data->IoStatus.Status) && swap->Stream != nullptr && data->IoStatus.Information != 0)
    {
        if (swap->NewBuffer == nullptr)
        {
            data->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
            data->IoStatus.Information = 0;
        }
        else
        {
            Decipher(data, swap);
        }
    }
    if (swap->Stream != nullptr)
    {
        FltReleaseContext(swap->Stream);
    }
    FreeSwap(objects->Instance, swap);
    return FLT_POSTOP_FINISHED_PROCESSING;
}
