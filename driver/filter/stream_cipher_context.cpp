#include "driver/filter/stream_cipher_context.h"

#include "driver/core/global_state.h"
#include "driver/util/pool.h"
#include "driver/util/unlocked.h"

namespace
{
// Pipes and mailslots pass by the same entry but hold no stream.
bool HoldsStream(PCFLT_RELATED_OBJECTS objects)
{
    if (FlagOn(objects->FileObject->Flags, FO_NAMED_PIPE | FO_MAILSLOT))
    {
        return false;
    }
    BOOLEAN isDirectory = FALSE;
    NTSTATUS status = FltIsDirectory(objects->FileObject, objects->Instance, &isDirectory);
    return NT_SUCCESS(status) && !isDirectory;
}

void FillContext(StreamCipherContext* context)
{
    RtlZeroMemory(context, sizeof(*context));
    ULONG keyLength = LoadUnlocked(Global.KeyLength);
    MakeEncryptionSchedule(Global.CryptKey, keyLength, &context->EncryptionSchedule);
    MakeDecryptionSchedule(Global.CryptKey, keyLength, &context->DecryptionSchedule);
}

void AttachContext(PCFLT_RELATED_OBJECTS objects)
{
    PFLT_CONTEXT context = nullptr;
    NTSTATUS status =
        FltAllocateContext(objects->Filter, FLT_STREAM_CONTEXT, sizeof(StreamCipherContext), DefaultPoolType, &context);
    if (!NT_SUCCESS(status))
    {
        return;
    }
    FillContext(static_cast<StreamCipherContext*>(context));
    PFLT_CONTEXT old = nullptr;
    status =
        FltSetStreamContext(objects->Instance, objects->FileObject, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, &old);
    if (NT_SUCCESS(status) && old != nullptr)
    {
        FltReleaseContext(old);
    }
    // The stream's own reference keeps it.
    FltReleaseContext(context);
}
}

bool StreamContextReference::Find(PCFLT_RELATED_OBJECTS objects)
{
    PFLT_CONTEXT context = nullptr;
    NTSTATUS status = FltGetStreamContext(objects->Instance, objects->FileObject, &context);
    if (!NT_SUCCESS(status))
    {
        return false;
    }
    context_ = static_cast<StreamCipherContext*>(context);
    return true;
}

LONGLONG FileSystemSize(PFILE_OBJECT fileObject)
{
    auto header = static_cast<PFSRTL_COMMON_FCB_HEADER>(fileObject->FsContext);
    return header != nullptr ? LoadUnlocked(header->FileSize.QuadPart) : 0;
}

FLT_POSTOP_CALLBACK_STATUS NTAPI PostCreate(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID, FLT_POST_OPERATION_FLAGS)
{
    // Informational successes, a reparse for one, opened nothing.
    if (data->IoStatus.Status == STATUS_SUCCESS && HoldsStream(objects))
    {
        AttachContext(objects);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}

void NTAPI CleanupStreamContext(PFLT_CONTEXT, FLT_CONTEXT_TYPE) {}
