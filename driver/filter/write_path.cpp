#include "driver/filter/write_path.h"

#include "driver/core/global_state.h"
#include "driver/filter/stream_cipher.h"
#include "driver/filter/swap_buffer.h"
#include "driver/util/pool.h"
#include "driver/util/unlocked.h"

namespace
{
// How much of a write is enciphered, and how long it becomes.
struct WriteSpan
{
    ULONG Enciphered;
    ULONG NewLength;
};

// A write may name the end of file or the file position in place of an offset.
LONGLONG EffectiveOffset(const LARGE_INTEGER& offset, PFILE_OBJECT fileObject)
{
    constexpr LONGLONG EndOfFile = -1;
    constexpr LONGLONG FilePosition = -2;
    if (offset.QuadPart == EndOfFile)
    {
        return FileSystemSize(fileObject);
    }
    return offset.QuadPart == FilePosition ? fileObject->CurrentByteOffset.QuadPart : offset.QuadPart;
}

LONGLONG Larger(LONGLONG first, LONGLONG second)
{
    return first > second ? first : second;
}

void TrackCachedWrite(StreamCipherContext* stream, LONGLONG offset, ULONG length, LONGLONG fileSize)
{
    LONGLONG end = static_cast<LONGLONG>(static_cast<ULONGLONG>(offset) + length);
    StoreUnlocked(stream->TrackedFileSize, Larger(end, fileSize));
}

// The end of file that bounds a write.
LONGLONG RaiseTrackedSize(StreamCipherContext* stream, LONGLONG fileSize)
{
    LONGLONG tracked = LoadUnlocked(stream->TrackedFileSize);
    if (tracked < fileSize)
    {
        StoreUnlocked(stream->TrackedFileSize, fileSize);
        tracked = fileSize;
    }
    return tracked != 0 ? tracked : fileSize;
}

// Only the part up to the end of file is enciphered. A write that ends inside a block of a file that goes on is
// lengthened to the whole block, which would not decipher otherwise.
WriteSpan SpanOfWrite(LONGLONG offset, ULONG length, LONGLONG size)
{
    ULONG enciphered = length;
    if (size > offset && size - offset < length)
    {
        enciphered = static_cast<ULONG>(size - offset);
    }
    WriteSpan span = {enciphered, length};
    if (enciphered % CipherBlockBytes != 0)
    {
        ULONG lengthened = (enciphered / CipherBlockBytes + 1) * CipherBlockBytes;
        // The sum wraps only within the last block below 4 GiB; such a write keeps its length.
        if (lengthened > enciphered && lengthened <= size - offset)
        {
            span = {lengthened, lengthened};
        }
    }
    return span;
}

// A user-mode caller's buffer without an MDL may vanish at any moment.
bool EncipherGuarded(
    PFLT_CALLBACK_DATA data, const AES_KEY& schedule, const CallerSpan& caller, ULONG bytes, PUCHAR output)
{
    UCHAR mask = LoadUnlocked(Global.XorByte);
    if (data->RequestorMode == KernelMode || data->Iopb->Parameters.Write.MdlAddress != nullptr)
    {
        EncipherSpan(schedule, mask, caller, bytes, output);
        return true;
    }
    return NT_SUCCESS(TryAccess([&] { EncipherSpan(schedule, mask, caller, bytes, output); }));
}

// False when the write has to go on with the caller's own buffer.
bool SwapWriteBuffer(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, StreamCipherContext* stream, PVOID* completionContext)
{
    auto& write = data->Iopb->Parameters.Write;
    PUCHAR callerData = CallerDataAddress(write.MdlAddress, write.WriteBuffer);
    if (callerData == nullptr)
    {
        return false;
    }
    LONGLONG size = RaiseTrackedSize(stream, FileSystemSize(objects->FileObject));
    LONGLONG offset = EffectiveOffset(write.ByteOffset, objects->FileObject);
    WriteSpan span = SpanOfWrite(offset, write.Length, size);

    SwapBuffer buffer(objects->Instance);
    if (!buffer.Allocate(span.NewLength, span.NewLength))
    {
        return false;
    }
    auto swap = PoolPointer<WriteSwapContext>::Allocate();
    CallerSpan caller = {callerData, write.Length};
    if (!swap || !EncipherGuarded(data, stream->EncryptionSchedule, caller, span.Enciphered, buffer.Data()))
    {
        DbgPrint("PreWrite - free\n");
        return false;
    }
    // Aligned pool is not cleared, and what was left in it must not reach the disk.
    RtlZeroMemory(buffer.Data() + span.Enciphered, span.NewLength - span.Enciphered);

    swap->CallerBuffer = write.WriteBuffer;
    swap->CallerMdl = write.MdlAddress;
    swap->CallerLength = write.Length;
    buffer.MoveTo(swap.Get());

    write.WriteBuffer = swap->NewBuffer;
    write.MdlAddress = swap->NewMdl;
    write.Length = span.NewLength;
    *completionContext = swap.Detach();
    FltSetCallbackDataDirty(data);
    return true;
}
}

FLT_PREOP_CALLBACK_STATUS NTAPI PreWrite(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext)
{
    StreamContextReference stream;
    if (KeGetCurrentIrql() > APC_LEVEL || !stream.Find(objects) || FLT_IS_FASTIO_OPERATION(data))
    {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    const auto& write = data->Iopb->Parameters.Write;
    if (!IsPagingOperation(data) && !FlagOn(data->Iopb->IrpFlags, IRP_NOCACHE))
    {
        LONGLONG offset = EffectiveOffset(write.ByteOffset, objects->FileObject);
        TrackCachedWrite(stream.Get(), offset, write.Length, FileSystemSize(objects->FileObject));
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    bool swapped = write.Length != 0 && IsUsable(stream->EncryptionSchedule) &&
                   SwapWriteBuffer(data, objects, stream.Get(), completionContext);
    return swapped ? FLT_PREOP_SUCCESS_WITH_CALLBACK : FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS NTAPI PostWrite(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID completionContext, FLT_POST_OPERATION_FLAGS)
{
    auto swap = static_cast<WriteSwapContext*>(completionContext);
    if (swap != nullptr)
    {
        auto& write = data->Iopb->Parameters.Write;
        write.MdlAddress = swap->CallerMdl;
        write.WriteBuffer = swap->CallerBuffer;
        write.Length = swap->CallerLength;
        FreeSwap(objects->Instance, swap);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}
