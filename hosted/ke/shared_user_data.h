// The page that Windows shows to every process at a fixed address, and to the kernel at 0xFFFFF78000000000. Compiled
// code reads the system time from there without calling anybody.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Where the page stands on Windows, and where in it the system time.
inline constexpr ULONG_PTR SharedUserDataAddress = 0xFFFFF78000000000;
inline constexpr SIZE_T SharedSystemTimeOffset = 0x14;

// The page here: PAGE_SIZE bytes, page-aligned. All of it but the system time is zero.
const UCHAR* SharedUserDataPage();

// The system time as the page shows it. Any IRQL, any number of readers and writers. As on Windows a read is whole
// while the clock goes forward; one that is set back and forth under a reader may show it half of each.
LONGLONG ReadSharedSystemTime();
void WriteSharedSystemTime(LONGLONG time);
}
