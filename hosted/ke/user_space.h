// Where the memory of simulated programs lies: one reserved range, so that one look tells whose an address is.
#pragma once

#include <ntifs.h>

namespace host
{
// Zero-filled, readable and writable, followed by an inaccessible page that belongs to the region. `bytes` is a
// whole number of pages. Bug check when the range is used up.
UCHAR* ReserveUserPages(SIZE_T bytes);
void ReleaseUserPages(UCHAR* base, SIZE_T bytes);
void ProtectUserPages(UCHAR* base, SIZE_T bytes, bool readable, bool writable);
}
