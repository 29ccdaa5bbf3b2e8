// What reads and writes share when they swap an operation's buffer for the driver's own.
#pragma once

#include "driver/filter/stream_cipher_context.h"

// From pre- to post-operation of a swapped transfer. The new MDL belongs to the operation from the swap on.
struct WriteSwapContext
{
    PVOID CallerBuffer;
    PMDL CallerMdl;
    PMDL NewMdl;
    PVOID NewBuffer;
    // In bytes.
    ULONG CallerLength;
};

struct ReadSwapContext : WriteSwapContext
{
    // The system address of the caller's buffer, where a completion can reach it.
    PUCHAR CallerData;
    // Referenced since the pre-operation.
    StreamCipherContext* Stream;
};

inline bool IsPagingOperation(PFLT_CALLBACK_DATA data)
{
    return FlagOn(data->Iopb->IrpFlags, IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO) != 0;
}

// The system address of the caller's bytes: through the MDL if there is one, mapping it where necessary, else the
// buffer. Null when the MDL cannot be mapped. IRQL up to APC_LEVEL.
PUCHAR CallerDataAddress(PMDL mdl, PVOID buffer);

// The driver's buffer of a swap until the operation takes it over.
class SwapBuffer
{
public:
    explicit SwapBuffer(PFLT_INSTANCE instance) : instance_(instance) {}
    SwapBuffer(const SwapBuffer&) = delete;
    SwapBuffer& operator=(const SwapBuffer&) = delete;
    ~SwapBuffer();

    // A buffer of that many bytes and an MDL over its first mdlBytes. IRQL up to APC_LEVEL.
    bool Allocate(ULONG bytes, ULONG mdlBytes);
    PUCHAR Data() const { return static_cast<PUCHAR>(buffer_); }
    // Hands both to the operation.
    void MoveTo(WriteSwapContext* swap);

private:
    PFLT_INSTANCE instance_;
    PVOID buffer_ = nullptr;
    PMDL mdl_ = nullptr;
};

// Frees the driver's buffer and the swap context in a post-operation; the MDL goes with the operation. IRQL up to
// DISPATCH_LEVEL.
void FreeSwap(PFLT_INSTANCE instance, WriteSwapContext* swap);
