// What kind of system is being modelled. Set once when a machine boots, read everywhere.
#pragma once

#include <ntifs.h>

namespace hosted
{
struct SystemModel
{
    ULONG MajorVersion = 6;
    ULONG MinorVersion = 1;
    ULONG BuildNumber = 7601;
    // True on systems whose pool honours the zero-allocation flag by itself and says so when asked.
    bool ZeroesPool = false;
    // Each pool allocation stands against an unmapped page.
    bool GuardedPool = false;
    // Pool is filled when it is given out and when it comes back, kept from use for a while, and each allocation knows
    // its stack. Without, allocations cost what they cost elsewhere; their count and tags are still kept.
    bool WatchedPool = true;
    // Bytes of kernel stack that IoGetStackLimits lets the caller see below its own frame; 0 means plenty.
    ULONG StackBytesLeft = 0;
    // The level at which post-operation callbacks of paging and non-cached I/O run.
    KIRQL CompletionIrql = PASSIVE_LEVEL;
    // Most bytes that the page cache of all volumes may hold.
    SIZE_T CacheLimitBytes = 64ull << 20;
    // Local time = system time - bias, in units of 100 ns.
    LONGLONG TimeZoneBias = 0;
};

SystemModel& Model();

// Each machine that boots from now on has a guarded pool, whatever it is asked for.
void GuardEveryPool();
// The model that a machine is to be booted with.
void SetModel(const SystemModel& model);
}
