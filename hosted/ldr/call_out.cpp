#include "hosted/ldr/call_out.h"

#include "hosted/ke/bug_check.h"

#include <cstring>
#include <sys/mman.h>

extern "C" void __asan_handle_no_return() __attribute__((weak));

// The registers that a callee keeps, in the order in which the stub stores them.
struct KeptRegisters
{
    ULONGLONG Rbx, Rbp, Rsi, Rdi, R12, R13, R14, R15;
    hosted::Xmm Vector6To15[10];
};

// From the stubs. `slot` is where the return address stands.
extern "C" NTAPI void HostedCallOut(ULONGLONG* slot, const KeptRegisters* kept);
// When a routine returns: where to.
extern "C" NTAPI ULONGLONG HostedCallReturn(ULONGLONG rsp);
extern "C" void HostedCallOutStub();
extern "C" void HostedCallReturnStub();
extern "C" void HostedContinue(const hosted::ProcessorContext* context, ULONGLONG* stack);

// The stub is entered by a jump, with the routine in r11 and the caller's frame untouched: arguments in rcx, rdx, r8,
// r9, xmm0 to xmm3 and on the stack, whose layout the routine must find as the caller made it.
__asm__(R"(
    .text
    .globl HostedCallOutStub
HostedCallOutStub:
    pushq %r11
    pushq %r9
    pushq %r8
    pushq %rdx
    pushq %rcx
    subq $320, %rsp
    movaps %xmm0, 32(%rsp)
    movaps %xmm1, 48(%rsp)
    movaps %xmm2, 64(%rsp)
    movaps %xmm3, 80(%rsp)
    movq %rbx, 96(%rsp)
    movq %rbp, 104(%rsp)
    movq %rsi, 112(%rsp)
    movq %rdi, 120(%rsp)
    movq %r12, 128(%rsp)
    movq %r13, 136(%rsp)
    movq %r14, 144(%rsp)
    movq %r15, 152(%rsp)
    movaps %xmm6, 160(%rsp)
    movaps %xmm7, 176(%rsp)
    movaps %xmm8, 192(%rsp)
    movaps %xmm9, 208(%rsp)
    movaps %xmm10, 224(%rsp)
    movaps %xmm11, 240(%rsp)
    movaps %xmm12, 256(%rsp)
    movaps %xmm13, 272(%rsp)
    movaps %xmm14, 288(%rsp)
    movaps %xmm15, 304(%rsp)
    leaq 360(%rsp), %rcx
    leaq 96(%rsp), %rdx
    call HostedCallOut
    movaps 32(%rsp), %xmm0
    movaps 48(%rsp), %xmm1
    movaps 64(%rsp), %xmm2
    movaps 80(%rsp), %xmm3
    addq $320, %rsp
    popq %rcx
    popq %rdx
    popq %r8
    popq %r9
    popq %r11
    jmpq *%r11

    .globl HostedCallReturnStub
HostedCallReturnStub:
    movq %rsp, %rcx
    subq $80, %rsp
    movq %rax, 32(%rsp)
    movaps %xmm0, 48(%rsp)
    call HostedCallReturn
    movq %rax, 72(%rsp)
    movq 32(%rsp), %rax
    movaps 48(%rsp), %xmm0
    addq $72, %rsp
    ret

    .globl HostedContinue
HostedContinue:
    movaps 0x1a0(%rdi), %xmm0
    movaps 0x1b0(%rdi), %xmm1
    movaps 0x1c0(%rdi), %xmm2
    movaps 0x1d0(%rdi), %xmm3
    movaps 0x1e0(%rdi), %xmm4
    movaps 0x1f0(%rdi), %xmm5
    movaps 0x200(%rdi), %xmm6
    movaps 0x210(%rdi), %xmm7
    movaps 0x220(%rdi), %xmm8
    movaps 0x230(%rdi), %xmm9
    movaps 0x240(%rdi), %xmm10
    movaps 0x250(%rdi), %xmm11
    movaps 0x260(%rdi), %xmm12
    movaps 0x270(%rdi), %xmm13
    movaps 0x280(%rdi), %xmm14
    movaps 0x290(%rdi), %xmm15
    movq 0x78(%rdi), %rax
    movq 0x80(%rdi), %rcx
    movq 0x88(%rdi), %rdx
    movq 0x90(%rdi), %rbx
    movq 0xa0(%rdi), %rbp
    movq 0xb8(%rdi), %r8
    movq 0xc0(%rdi), %r9
    movq 0xc8(%rdi), %r10
    movq 0xd0(%rdi), %r11
    movq 0xd8(%rdi), %r12
    movq 0xe0(%rdi), %r13
    movq 0xe8(%rdi), %r14
    movq 0xf0(%rdi), %r15
    movq %rsi, %rsp
    movq 0xa8(%rdi), %rsi
    movq 0xb0(%rdi), %rdi
    ret
)");

namespace hosted
{
namespace
{
thread_local std::vector<CallOut> callOuts;

constexpr size_t CodeBytes = 8 * PAGE_SIZE;
constexpr size_t StubBytes = 32;

UCHAR* Emit(UCHAR* at, std::initializer_list<UCHAR> opcode, const void* operand)
{
    at = std::copy(opcode.begin(), opcode.end(), at);
    std::memcpy(at, &operand, sizeof(operand));
    return at + sizeof(operand);
}
}

CallOutTable::CallOutTable()
    : code_(static_cast<UCHAR*>(mmap(nullptr, CodeBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
{
    if (code_ == MAP_FAILED)
    {
        BugCheck("call-out-memory", "no memory for an image's import stubs");
    }
}

CallOutTable::~CallOutTable()
{
    munmap(code_, CodeBytes);
}

void* CallOutTable::Add(void* routine)
{
    if (used_ + StubBytes > CodeBytes)
    {
        BugCheck("call-out-memory", "an image imports more than %zu routines", CodeBytes / StubBytes);
    }
    UCHAR* stub = code_ + used_;
    used_ += StubBytes;
    UCHAR* at = Emit(stub, {0x49, 0xbb}, routine);                                 // mov r11, routine
    at = Emit(at, {0x48, 0xb8}, reinterpret_cast<const void*>(HostedCallOutStub)); // mov rax, ...
    at[0] = 0xff;                                                                  // jmp rax
    at[1] = 0xe0;
    return stub;
}

void CallOutTable::Seal()
{
    mprotect(code_, CodeBytes, PROT_READ | PROT_EXEC);
}

size_t CallOutDepth()
{
    return callOuts.size();
}

const CallOut& InnermostCallOut()
{
    return callOuts.back();
}

void TrimCallOuts(size_t depth)
{
    callOuts.resize(depth);
}

void ContinueAt(const ProcessorContext& context)
{
    if (__asan_handle_no_return != nullptr)
    {
        __asan_handle_no_return();
    }
    // Below the stack pointer, where nobody keeps anything.
    auto stack = reinterpret_cast<ULONGLONG*>(context.Integer[Rsp]) - 1;
    *stack = context.Rip;
    HostedContinue(&context, stack);
    __builtin_unreachable();
}
}

extern "C" NTAPI void HostedCallOut(ULONGLONG* slot, const KeptRegisters* kept)
{
    hosted::CallOut call;
    call.Rip = *slot;
    call.Rsp = reinterpret_cast<ULONGLONG>(slot + 1);
    std::memcpy(&call.Rbx, kept, sizeof(*kept));
    hosted::callOuts.push_back(call);
    *slot = reinterpret_cast<ULONGLONG>(HostedCallReturnStub);
}

extern "C" NTAPI ULONGLONG HostedCallReturn(ULONGLONG rsp)
{
    if (hosted::callOuts.empty() || hosted::callOuts.back().Rsp != rsp)
    {
        hosted::BugCheck("call-out-order", "a routine returned to an image that did not call it");
    }
    const ULONGLONG rip = hosted::callOuts.back().Rip;
    hosted::callOuts.pop_back();
    return rip;
}
