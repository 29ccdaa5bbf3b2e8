// Where the memory of simulated programs lies: one reserved range, so that one look tells whose an address is.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Zero-filled, readable and writable, followed by an inaccessible page that belongs to the region. `bytes` is a
// whole number of pages. Bug check when the range is used up.
UCHAR* ReserveUserPages(SIZE_T bytes);
void ReleaseUserPages(UCHAR* base, SIZE_T bytes);
void ProtectUserPages(UCHAR* base, SIZE_T bytes, bool readable, bool writable);
// The next access to each page is a fault, after which the page is as before: readable and writable.
void GuardUserPages(UCHAR* base, SIZE_T bytes);
// Whether that was such an access; the page then has no guard any more. In a signal handler, too.
bool TakeGuard(const volatile void* address);
}
