// Walking the stack of a loaded image by its unwind tables.
#pragma once

#include "hosted/ldr/exception.h"

namespace hosted
{
// The entry that covers an address of the image at `base`, or null: the address belongs to no function with a frame.
const FunctionEntry* FindFunction(const UCHAR* base, ULONG unwindTable, ULONG unwindBytes, ULONGLONG address);

// Which handlers of a frame are wanted.
constexpr ULONG NoHandler = 0;
constexpr ULONG ExceptionHandler = 1;
constexpr ULONG TerminationHandler = 2;

struct UnwoundFrame
{
    LanguageHandler Handler; // null when the frame has none of the wanted kind
    PVOID HandlerData;
    ULONGLONG EstablisherFrame;
};

// Turns the registers at `controlPc`, inside that function, into those of its caller.
UnwoundFrame UnwindFrame(
    ULONG wanted, ULONGLONG base, ULONGLONG controlPc, const FunctionEntry* function, ProcessorContext* context);
// For code without a table entry, which never moved its stack pointer: takes the return address.
void UnwindLeaf(ProcessorContext* context);
}

// What compiled code that has handlers of its own imports.
extern "C" hosted::LanguageHandler NTAPI KernelVirtualUnwind(ULONG HandlerType, ULONGLONG ImageBase,
    ULONGLONG ControlPc, const hosted::FunctionEntry* FunctionEntry, hosted::ProcessorContext* ContextRecord,
    PVOID* HandlerData, PULONGLONG EstablisherFrame, PVOID ContextPointers);
