// The per-stream context whose presence makes a stream enciphered.
#pragma once

#include "driver/filter/block_cipher.h"

#include <fltkernel.h>

struct StreamCipherContext
{
    // For enciphering only, and for deciphering only. Unset when the key has a length that AES does not know: the
    // stream's data then passes unchanged.
    AES_KEY EncryptionSchedule;
    AES_KEY DecryptionSchedule;
    // The end of file, in bytes, as the filter has followed it through writes and end-of-file changes. Read and written
    // without a lock; the last writer wins.
    LONGLONG TrackedFileSize;
};

// Holds a reference on a stream's context for a scope.
class StreamContextReference
{
public:
    StreamContextReference() = default;
    StreamContextReference(const StreamContextReference&) = delete;
    StreamContextReference& operator=(const StreamContextReference&) = delete;
    ~StreamContextReference()
    {
        if (context_ != nullptr)
        {
            FltReleaseContext(context_);
        }
    }

    // False when the stream has none. IRQL up to APC_LEVEL.
    bool Find(PCFLT_RELATED_OBJECTS objects);
    StreamCipherContext* Get() const { return context_; }
    StreamCipherContext* operator->() const { return context_; }
    // Hands the reference to the caller.
    StreamCipherContext* Detach()
    {
        StreamCipherContext* context = context_;
        context_ = nullptr;
        return context;
    }

private:
    StreamCipherContext* context_ = nullptr;
};

// The file system's present size of the stream, in bytes; 0 for a file object without a stream. Any IRQL.
LONGLONG FileSystemSize(PFILE_OBJECT fileObject);

// Attaches a fresh context after a permitted open; replaces the one that is there. Runs only when the pre-create
// decision asked for it. All failures are silent: the stream then stays as it is. IRQL PASSIVE_LEVEL.
FLT_POSTOP_CALLBACK_STATUS NTAPI PostCreate(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID completionContext, FLT_POST_OPERATION_FLAGS flags);

// The context holds no pointers, so there is nothing to free.
void NTAPI CleanupStreamContext(PFLT_CONTEXT context, FLT_CONTEXT_TYPE type);
