#include "hosted/ldr/unwind.h"

#include "hosted/ke/bug_check.h"

#include <algorithm>
#include <cstring>

namespace hosted
{
namespace
{
// UNWIND_INFO, up to the array of codes.
struct UnwindInfo
{
    UCHAR VersionAndFlags;
    UCHAR PrologBytes;
    UCHAR CodeCount;
    UCHAR FrameRegisterAndOffset;

    ULONG Flags() const { return VersionAndFlags >> 3; }
    unsigned FrameRegister() const { return FrameRegisterAndOffset & 0xf; }
    ULONG FrameOffset() const { return (FrameRegisterAndOffset >> 4) * 16u; }
    const USHORT* Codes() const { return reinterpret_cast<const USHORT*>(this + 1); }
    // Handler or chained function; the array is padded to an even count.
    const UCHAR* Behind() const { return reinterpret_cast<const UCHAR*>(Codes() + (CodeCount + 1u) / 2 * 2); }
};

constexpr ULONG FlagChained = 4;

enum Operation : unsigned
{
    PushNonvolatile,
    AllocateLarge,
    AllocateSmall,
    SetFramePointer,
    SaveNonvolatile,
    SaveNonvolatileFar,
    SaveXmm = 8,
    SaveXmmFar,
    PushMachineFrame
};

struct Code
{
    explicit Code(USHORT word) : PrologOffset(word & 0xff), Kind(word >> 8 & 0xf), Detail(word >> 12) {}
    ULONG PrologOffset;
    unsigned Kind;
    unsigned Detail;
};

ULONGLONG Load(ULONGLONG address)
{
    ULONGLONG value;
    std::memcpy(&value, reinterpret_cast<const void*>(address), sizeof(value));
    return value;
}

ULONG Word32(const USHORT* words)
{
    return words[0] | static_cast<ULONG>(words[1]) << 16;
}

// How many words an operation takes, its own included.
unsigned WordsOf(const Code& code)
{
    switch (code.Kind)
    {
    case AllocateLarge:
        return code.Detail == 0 ? 2 : 3;
    case SaveNonvolatile:
    case SaveXmm:
        return 2;
    case SaveNonvolatileFar:
    case SaveXmmFar:
        return 3;
    default:
        return 1;
    }
}

// Undoes one operation of a prologue. `frame` is what saved registers are addressed from.
void Undo(const Code& code, const USHORT* operands, const UnwindInfo* info, ULONGLONG frame, ProcessorContext* context)
{
    ULONGLONG* integer = context->Integer;
    switch (code.Kind)
    {
    case PushNonvolatile:
        integer[code.Detail] = Load(integer[Rsp]);
        integer[Rsp] += 8;
        break;
    case AllocateLarge:
        integer[Rsp] += code.Detail == 0 ? operands[0] * 8u : Word32(operands);
        break;
    case AllocateSmall:
        integer[Rsp] += code.Detail * 8u + 8;
        break;
    case SetFramePointer:
        integer[Rsp] = integer[info->FrameRegister()] - info->FrameOffset();
        break;
    case SaveNonvolatile:
        integer[code.Detail] = Load(frame + operands[0] * 8u);
        break;
    case SaveNonvolatileFar:
        integer[code.Detail] = Load(frame + Word32(operands));
        break;
    case SaveXmm:
        std::memcpy(
            &context->Vector[code.Detail], reinterpret_cast<const void*>(frame + operands[0] * 16u), sizeof(Xmm));
        break;
    case SaveXmmFar:
        std::memcpy(
            &context->Vector[code.Detail], reinterpret_cast<const void*>(frame + Word32(operands)), sizeof(Xmm));
        break;
    default:
        // A machine frame: drivers have no interrupt entries.
        BugCheck("unwind-operation", "operation %u in an image's unwind table", code.Kind);
    }
}

bool SetsFrame(const UnwindInfo* info, ULONG done)
{
    for (unsigned i = 0; i < info->CodeCount; i += WordsOf(Code(info->Codes()[i])))
    {
        const Code code(info->Codes()[i]);
        if (code.Kind == SetFramePointer)
        {
            return code.PrologOffset <= done;
        }
    }
    return false;
}

// The frame's own base: the stack pointer behind the prologue.
ULONGLONG FrameBase(const UnwindInfo* info, ULONG done, const ProcessorContext* context)
{
    return info->FrameRegister() != 0 && SetsFrame(info, done)
               ? context->Integer[info->FrameRegister()] - info->FrameOffset()
               : context->Integer[Rsp];
}

const UnwindInfo* InfoAt(ULONGLONG base, ULONG address)
{
    return reinterpret_cast<const UnwindInfo*>(base + address);
}

void UndoProlog(const UnwindInfo* info, ULONG done, ULONGLONG frame, ProcessorContext* context)
{
    const USHORT* codes = info->Codes();
    for (unsigned i = 0; i < info->CodeCount;)
    {
        const Code code(codes[i]);
        if (code.PrologOffset <= done)
        {
            Undo(code, codes + i + 1, info, frame, context);
        }
        i += WordsOf(code);
    }
}
}

const FunctionEntry* FindFunction(const UCHAR* base, ULONG unwindTable, ULONG unwindBytes, ULONGLONG address)
{
    const auto first = reinterpret_cast<const FunctionEntry*>(base + unwindTable);
    const auto last = first + unwindBytes / sizeof(FunctionEntry);
    const auto offset = static_cast<ULONG>(address - reinterpret_cast<ULONGLONG>(base));
    const auto behind = std::upper_bound(
        first, last, offset, [](ULONG value, const FunctionEntry& entry) { return value < entry.Begin; });
    return behind != first && offset < behind[-1].End ? behind - 1 : nullptr;
}

UnwoundFrame UnwindFrame(
    ULONG wanted, ULONGLONG base, ULONGLONG controlPc, const FunctionEntry* function, ProcessorContext* context)
{
    const UnwindInfo* info = InfoAt(base, function->UnwindInfo);
    const ULONGLONG begin = base + function->Begin;
    const auto done = static_cast<ULONG>(std::min<ULONGLONG>(controlPc - begin, 0xffff));
    UnwoundFrame unwound = {nullptr, nullptr, FrameBase(info, done, context)};
    bool inProlog = done < info->PrologBytes;
    UndoProlog(info, done, unwound.EstablisherFrame, context);
    while ((info->Flags() & FlagChained) != 0)
    {
        // The part of a function that another one's prologue set up.
        FunctionEntry parent;
        std::memcpy(&parent, info->Behind(), sizeof(parent));
        info = InfoAt(base, parent.UnwindInfo);
        constexpr ULONG wholeProlog = 0xffff;
        UndoProlog(info, wholeProlog, FrameBase(info, wholeProlog, context), context);
        inProlog = false;
    }
    if (!inProlog && (info->Flags() & wanted) != 0)
    {
        const UCHAR* behind = info->Behind();
        ULONG handler;
        std::memcpy(&handler, behind, sizeof(handler));
        unwound.Handler = reinterpret_cast<LanguageHandler>(base + handler);
        unwound.HandlerData = const_cast<UCHAR*>(behind + sizeof(handler));
    }
    UnwindLeaf(context);
    return unwound;
}

void UnwindLeaf(ProcessorContext* context)
{
    context->Rip = Load(context->Integer[Rsp]);
    context->Integer[Rsp] += 8;
}
}

extern "C" hosted::LanguageHandler NTAPI KernelVirtualUnwind(ULONG HandlerType, ULONGLONG ImageBase,
    ULONGLONG ControlPc, const hosted::FunctionEntry* FunctionEntry, hosted::ProcessorContext* ContextRecord,
    PVOID* HandlerData, PULONGLONG EstablisherFrame, PVOID)
{
    const hosted::UnwoundFrame frame =
        hosted::UnwindFrame(HandlerType, ImageBase, ControlPc, FunctionEntry, ContextRecord);
    *HandlerData = frame.HandlerData;
    *EstablisherFrame = frame.EstablisherFrame;
    return frame.Handler;
}
