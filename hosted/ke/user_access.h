// Memory of user-mode programs, and the one way in which kernel code may touch it.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Page-granular memory of a simulated program. Addresses inside a live region are user addresses, and so is the
// first 64 KiB of the address space; everything else belongs to the kernel.
class UserRegion
{
public:
    // Readable and writable, zero-filled; bytes is rounded up to whole pages. An inaccessible page follows, which
    // belongs to the region, and `Tail(n)` is the address whose n bytes end exactly at that page.
    explicit UserRegion(SIZE_T bytes);
    ~UserRegion();
    UserRegion(const UserRegion&) = delete;
    UserRegion& operator=(const UserRegion&) = delete;

    UCHAR* Base() const { return base_; }
    SIZE_T Size() const { return size_; }
    UCHAR* Tail(SIZE_T bytes) const { return base_ + size_ - bytes; }
    void Protect(bool readable, bool writable);
    // As a program sets a guard on its pages: the next access to each raises STATUS_GUARD_PAGE_VIOLATION and takes the
    // guard away.
    void Guard();
    // The pages from the one at `offset` bytes to the last.
    void ProtectFrom(SIZE_T offset, bool readable, bool writable);

private:
    UCHAR* base_;
    SIZE_T size_;
};

bool IsUserAddress(const volatile void* address);

// Runs body(context). A memory fault at a user address inside it, or a status raised by RaiseStatus, abandons the
// body and becomes the result; a fault elsewhere goes on to the ordinary signal action (a crash, with a report).
// The body must hold nothing that needs destruction; what it holds through WithTermination is given back. Nests.
NTSTATUS GuardedCall(void (*body)(void* context), void* context);
// A copy that may read or write user memory, as one such call; the status is that of the fault that ended it.
NTSTATUS GuardedCopy(void* to, const void* from, SIZE_T bytes);
// Whether the calling thread is inside one, or was called by an image, which may have a handler.
bool InGuardedCall();

// What a loaded driver image adds: its own handlers, by its own unwind tables.
struct ImageFaultHooks
{
    // A fault at any instruction. True: the instruction is to be done again, with what changed in the signal's context.
    // Returns false for what is not the image's, and when the image has no handler for it.
    bool (*OnImageFault)(NTSTATUS status, const void* address, bool isUserAddress, void* signalContext);
    // A fault or raised status in a routine that an image called. Returns when the image has no handler for it.
    void (*OnRoutineFault)(NTSTATUS status, const void* address);
    // The thread's calls from images into the kernel that are under way; and forgetting those beyond the first few.
    size_t (*CallOutDepth)();
    void (*TrimCallOuts)(size_t depth);
};
void SetImageFaultHooks(const ImageFaultHooks* hooks);

// As an exception raised by a kernel routine: bug check when no guarded call is under way on this thread.
[[noreturn]] void RaiseStatus(NTSTATUS status);
}
