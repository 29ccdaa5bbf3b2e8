#include "hosted/ke/user_access.h"

#include "hosted/ke/fast_mutex.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/user_space.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <mutex>

namespace hosted
{
namespace
{
struct Guard
{
    sigjmp_buf Jump;
    Guard* Outer;
    NTSTATUS Status;
    size_t CallOuts;
};

std::atomic<const ImageFaultHooks*> imageHooks;

constinit thread_local Guard* currentGuard = nullptr;
struct sigaction previousSegv;
struct sigaction previousBus;

// A general protection fault reports address 0 whatever was touched, so only the two page fault codes count.
bool IsPageFault(int signal, const siginfo_t* information)
{
    if (signal == SIGBUS)
    {
        return information->si_code == BUS_ADRERR;
    }
    return information->si_code == SEGV_MAPERR || information->si_code == SEGV_ACCERR;
}

void PassOn(int signal, siginfo_t* information, void* context)
{
    const struct sigaction& previous = signal == SIGSEGV ? previousSegv : previousBus;
    if ((previous.sa_flags & SA_SIGINFO) != 0)
    {
        previous.sa_sigaction(signal, information, context);
    }
    else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN)
    {
        previous.sa_handler(signal);
    }
    else
    {
        // The access is repeated after the return and then ends the process in the ordinary way.
        ::signal(signal, SIG_DFL);
    }
}

size_t CallOutDepth()
{
    const ImageFaultHooks* hooks = imageHooks;
    return hooks == nullptr ? 0 : hooks->CallOutDepth();
}

// Whether the kernel was last entered by an image, later than the innermost guarded call was.
bool CalledByImage()
{
    const Guard* guard = currentGuard;
    return CallOutDepth() > (guard == nullptr ? 0 : guard->CallOuts);
}

// Leaves for whoever handles the status, the innermost first; returns when nobody does.
void Raise(NTSTATUS status, const void* address)
{
    if (CalledByImage())
    {
        imageHooks.load()->OnRoutineFault(status, address);
    }
    Guard* guard = currentGuard;
    if (guard != nullptr)
    {
        guard->Status = status;
        siglongjmp(guard->Jump, 1);
    }
}

void OnFault(int signal, siginfo_t* information, void* context)
{
    const bool isUserAddress = IsPageFault(signal, information) && IsUserAddress(information->si_addr);
    NTSTATUS status = signal == SIGSEGV ? STATUS_ACCESS_VIOLATION : STATUS_IN_PAGE_ERROR;
    if (isUserAddress && TakeGuard(information->si_addr))
    {
        status = STATUS_GUARD_PAGE_VIOLATION;
    }
    const ImageFaultHooks* hooks = imageHooks;
    if (hooks != nullptr && hooks->OnImageFault(status, information->si_addr, isUserAddress, context))
    {
        return;
    }
    if (isUserAddress)
    {
        Raise(status, information->si_addr);
    }
    PassOn(signal, information, context);
}

void InstallHandler()
{
    static std::once_flag once;
    std::call_once(once,
        []
        {
            struct sigaction action = {};
            action.sa_sigaction = OnFault;
            // Not blocked while it runs: it may leave by a jump. On the alternative stack, if there is one, so that a
            // stack overflow still reaches the sanitizer's handler.
            action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
            sigemptyset(&action.sa_mask);
            sigaction(SIGSEGV, &action, &previousSegv);
            sigaction(SIGBUS, &action, &previousBus);
        });
}

void RequireNothingHeld(KIRQL level, int mutexes)
{
    if (CurrentIrql() != level || FastMutexesHeld() != mutexes)
    {
        BugCheck("guarded-access-holds",
            "a fault left guarded access at level %u with %d fast mutexes (entered at "
            "%u with %d)",
            CurrentIrql(), FastMutexesHeld(), level, mutexes);
    }
}
}

UserRegion::UserRegion(SIZE_T bytes) : base_(nullptr), size_(ROUND_TO_PAGES(bytes == 0 ? 1 : bytes))
{
    base_ = ReserveUserPages(size_);
}

UserRegion::~UserRegion()
{
    ReleaseUserPages(base_, size_);
}

void UserRegion::Protect(bool readable, bool writable)
{
    ProtectUserPages(base_, size_, readable, writable);
}

void UserRegion::Guard()
{
    GuardUserPages(base_, size_);
}

void UserRegion::ProtectFrom(SIZE_T offset, bool readable, bool writable)
{
    const SIZE_T first = ALIGN_DOWN_BY(offset, PAGE_SIZE);
    if (first >= size_)
    {
        BugCheck("user-region-range", "page %llu of %llu bytes", first / PAGE_SIZE, size_);
    }
    ProtectUserPages(base_ + first, size_ - first, readable, writable);
}

NTSTATUS GuardedCall(void (*body)(void* context), void* context)
{
    InstallHandler();
    const KIRQL level = CurrentIrql();
    const int mutexes = FastMutexesHeld();
    Guard guard;
    guard.Outer = currentGuard;
    guard.Status = STATUS_SUCCESS;
    guard.CallOuts = CallOutDepth();
    if (sigsetjmp(guard.Jump, 1) == 0)
    {
        currentGuard = &guard;
        body(context);
        currentGuard = guard.Outer;
        return STATUS_SUCCESS;
    }
    currentGuard = guard.Outer;
    if (CallOutDepth() != guard.CallOuts)
    {
        imageHooks.load()->TrimCallOuts(guard.CallOuts);
    }
    RequireNothingHeld(level, mutexes);
    return guard.Status;
}

NTSTATUS GuardedCopy(void* to, const void* from, SIZE_T bytes)
{
    struct Copy
    {
        void* To;
        const void* From;
        SIZE_T Bytes;
    } copy{to, from, bytes};
    return GuardedCall(
        [](void* context)
        {
            const auto* wanted = static_cast<const Copy*>(context);
            RtlCopyMemory(wanted->To, wanted->From, wanted->Bytes);
        },
        &copy);
}

bool InGuardedCall()
{
    return currentGuard != nullptr || CalledByImage();
}

void SetImageFaultHooks(const ImageFaultHooks* hooks)
{
    imageHooks = hooks;
    InstallHandler();
}

void RaiseStatus(NTSTATUS status)
{
    Raise(status, nullptr);
    BugCheck("unhandled-exception", "status %08X was raised outside guarded access", static_cast<ULONG>(status));
}
}
