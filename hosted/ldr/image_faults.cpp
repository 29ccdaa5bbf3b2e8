#include "hosted/ldr/image_faults.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/shared_user_data.h"
#include "hosted/ke/user_access.h"
#include "hosted/ldr/dispatch.h"
#include "hosted/ldr/loaded_image.h"

#include <cstring>
#include <ucontext.h>

namespace hosted
{
namespace
{
// Registers of a signal frame in the order of their numbers in instructions.
constexpr int SignalRegisters[IntegerRegisters] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI,
    REG_RDI, REG_R8, REG_R9, REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};

ProcessorContext FromSignal(const ucontext_t* signal)
{
    ProcessorContext context = {};
    for (unsigned i = 0; i < IntegerRegisters; ++i)
    {
        context.Integer[i] = static_cast<ULONGLONG>(signal->uc_mcontext.gregs[SignalRegisters[i]]);
    }
    context.Rip = static_cast<ULONGLONG>(signal->uc_mcontext.gregs[REG_RIP]);
    context.EFlags = static_cast<ULONG>(signal->uc_mcontext.gregs[REG_EFL]);
    std::memcpy(context.Vector, signal->uc_mcontext.fpregs->_xmm, sizeof(context.Vector));
    return context;
}

ProcessorContext FromCallOut(const CallOut& call)
{
    ProcessorContext context = {};
    context.Rip = call.Rip;
    context.Integer[Rsp] = call.Rsp;
    context.Integer[Rbx] = call.Rbx;
    context.Integer[Rbp] = call.Rbp;
    context.Integer[Rsi] = call.Rsi;
    context.Integer[Rdi] = call.Rdi;
    context.Integer[R12] = call.R12;
    context.Integer[R13] = call.R13;
    context.Integer[R14] = call.R14;
    context.Integer[R15] = call.R15;
    std::memcpy(&context.Vector[6], call.Vector6To15, sizeof(call.Vector6To15));
    return context;
}

// mov reg, cr8: the interrupt request level, which compiled code reads without a call.
bool ServeLevelRead(const UCHAR* instruction, ucontext_t* signal)
{
    const bool isRead = (instruction[0] & 0xfe) == 0x44 && instruction[1] == 0x0f && instruction[2] == 0x20 &&
                        (instruction[3] & 0xf8) == 0xc0;
    if (!isRead)
    {
        return false;
    }
    const unsigned target = (instruction[3] & 7u) | (instruction[0] & 1u) << 3;
    signal->uc_mcontext.gregs[SignalRegisters[target]] = CurrentIrql();
    signal->uc_mcontext.gregs[REG_RIP] += 4;
    return true;
}

// A load from the page that Windows shows at a fixed address: the register that points there is pointed at the page
// here, and the instruction is done again.
bool ServeSharedData(ucontext_t* signal)
{
    for (const int index : SignalRegisters)
    {
        const auto value = static_cast<ULONGLONG>(signal->uc_mcontext.gregs[index]);
        if (value - SharedUserDataAddress < PAGE_SIZE)
        {
            signal->uc_mcontext.gregs[index] =
                static_cast<greg_t>(value - SharedUserDataAddress + reinterpret_cast<ULONGLONG>(SharedUserDataPage()));
            return true;
        }
    }
    return false;
}

// int 29h: the image found itself corrupted.
void ReportFastFail(const UCHAR* instruction, const ucontext_t* signal)
{
    if (instruction[0] == 0xcd && instruction[1] == 0x29)
    {
        KeBugCheckOnFastFail(static_cast<ULONG>(signal->uc_mcontext.gregs[REG_RCX]));
    }
}

bool OnImageFault(NTSTATUS status, const void* address, bool isUserAddress, void* signalContext)
{
    auto signal = static_cast<ucontext_t*>(signalContext);
    const auto rip = static_cast<ULONGLONG>(signal->uc_mcontext.gregs[REG_RIP]);
    if (LoadedImage::At(rip) != nullptr)
    {
        const auto instruction = reinterpret_cast<const UCHAR*>(rip);
        ReportFastFail(instruction, signal);
        if (ServeLevelRead(instruction, signal) || ServeSharedData(signal))
        {
            return true;
        }
        if (isUserAddress)
        {
            DispatchException(status, address, FromSignal(signal));
        }
    }
    return false;
}

// A routine that an image called gives up.
void OnRoutineFault(NTSTATUS status, const void* address)
{
    const ProcessorContext context = FromCallOut(InnermostCallOut());
    TrimCallOuts(CallOutDepth() - 1);
    DispatchException(status, address, context);
}

constexpr ImageFaultHooks Hooks = {OnImageFault, OnRoutineFault, CallOutDepth, TrimCallOuts};
}

void HandleImageFaults()
{
    SetImageFaultHooks(&Hooks);
}
}
