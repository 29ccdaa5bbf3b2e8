// Memory of user-mode programs, and the one way in which kernel code may touch it.
#pragma once

#include <ntifs.h>

namespace host
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
// Whether the calling thread is inside one.
bool InGuardedCall();

// As an exception raised by a kernel routine: bug check when no guarded call is under way on this thread.
[[noreturn]] void RaiseStatus(NTSTATUS status);
}
