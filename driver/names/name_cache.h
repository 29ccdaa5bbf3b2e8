// A bounded map from a path to another path, guarded by one fast mutex. A key is remembered by its hash alone: two
// keys with the same hash are the same entry. Used for the long forms of short path names.
#pragma once

#include "driver/util/counted_string.h"
#include "driver/util/lock.h"

#include <ntifs.h>

// New keys are refused from this many records on; concurrent inserts may pass it by a few.
inline constexpr ULONG CacheTableLimit = 4096;

struct CacheTable
{
    RTL_GENERIC_TABLE Table GUARDED_BY(Lock);
    FastLock Lock;
};

// All that return a status answer STATUS_INVALID_PARAMETER, printed, for a null table, key or count.

// Before anybody else can use the table; fails for nothing else.
NTSTATUS CTInitialize(CacheTable* table);
// Both empty the table; fails for nothing else. IRQL up to DISPATCH_LEVEL; above APC_LEVEL without the lock, like the
// count.
NTSTATUS CTFinalize(CacheTable* table);
void CTClear(CacheTable* table);
// How many records there are; fails for nothing else.
NTSTATUS CTGetElementCount(CacheTable* table, PULONG count);

// STATUS_SUCCESS when the key is present, STATUS_NOT_FOUND when not. *element (may be null) receives a terminated
// copy, or stays empty when the record holds no element. IRQL up to APC_LEVEL, above it STATUS_UNSUCCESSFUL;
// STATUS_INSUFFICIENT_RESOURCES without memory for the copy; else the failure to hash the key. All but STATUS_NOT_FOUND
// are printed. `reserved` is not used.
NTSTATUS CTLookupElement(CacheTable* table, PCUNICODE_STRING key, CountedString* element, ULONG reserved);
// STATUS_SUCCESS when inserted or already there (the first element stays). `element` may be null.
// STATUS_INSUFFICIENT_RESOURCES when the table is full or there is no memory; a record whose element found no memory
// stays without one. IRQL and other failures as for the look-up.
NTSTATUS CTInsertElement(CacheTable* table, PCUNICODE_STRING key, PCUNICODE_STRING element, ULONG reserved);
