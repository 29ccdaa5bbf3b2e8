// Structures of x64 exception handling, as compiled images and their handlers know them.
#pragma once

#include <ntifs.h>

#include <cstddef>

namespace hosted
{
struct alignas(16) Xmm
{
    ULONGLONG Low;
    LONGLONG High;
};

// Integer registers in the order of their numbers in instructions.
enum IntegerRegister : unsigned
{
    Rax,
    Rcx,
    Rdx,
    Rbx,
    Rsp,
    Rbp,
    Rsi,
    Rdi,
    R8,
    R9,
    R10,
    R11,
    R12,
    R13,
    R14,
    R15,
    IntegerRegisters
};
constexpr unsigned XmmRegisters = 16;

// CONTEXT of x64.
struct alignas(16) ProcessorContext
{
    ULONGLONG Home[6];
    ULONG ContextFlags;
    ULONG MxCsr;
    USHORT Segments[6];
    ULONG EFlags;
    ULONGLONG Debug[6];
    ULONGLONG Integer[IntegerRegisters];
    ULONGLONG Rip;
    UCHAR FloatHeader[160]; // control words and the x87 registers
    Xmm Vector[XmmRegisters];
    UCHAR Rest[96 + 16 * 26 + 6 * 8];
};
static_assert(offsetof(ProcessorContext, Integer) == 0x78);
static_assert(offsetof(ProcessorContext, Rip) == 0xf8);
static_assert(offsetof(ProcessorContext, Vector) == 0x1a0);
static_assert(sizeof(ProcessorContext) == 0x4d0);

// EXCEPTION_RECORD.
struct ExceptionRecord
{
    NTSTATUS Code;
    ULONG Flags;
    ExceptionRecord* Nested;
    PVOID Address;
    ULONG ParameterCount;
    ULONG_PTR Parameters[15];
};
static_assert(sizeof(ExceptionRecord) == 0x98);

constexpr ULONG ExceptionUnwinding = 0x2;
constexpr ULONG ExceptionTargetUnwind = 0x20;

// EXCEPTION_POINTERS.
struct ExceptionPointers
{
    ExceptionRecord* Record;
    ProcessorContext* Context;
};

// RUNTIME_FUNCTION: addresses from the image's base.
struct FunctionEntry
{
    ULONG Begin;
    ULONG End;
    ULONG UnwindInfo;
};

struct DispatcherContext;
typedef int(NTAPI* LanguageHandler)(
    ExceptionRecord* record, PVOID frame, ProcessorContext* context, DispatcherContext* dispatcher);

// DISPATCHER_CONTEXT.
struct DispatcherContext
{
    ULONGLONG ControlPc;
    ULONGLONG ImageBase;
    const FunctionEntry* Function;
    ULONGLONG EstablisherFrame;
    ULONGLONG TargetIp;
    ProcessorContext* Context;
    LanguageHandler Handler;
    PVOID HandlerData;
    PVOID HistoryTable;
    ULONG ScopeIndex;
    ULONG Fill;
};
static_assert(sizeof(DispatcherContext) == 0x50);

// What a language handler answers.
constexpr int ContinueExecution = 0;
constexpr int ContinueSearch = 1;
}
