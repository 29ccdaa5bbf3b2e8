// Objects with reference counts and types.
#pragma once

#include "hosted/rtl/wide_string.h"

namespace hosted
{
// Behaviour of one object type. Both routines may be null; they run without any lock of the object manager held.
struct ObjectType
{
    const char* Name;
    // The last handle to the object was closed (file objects: cleanup).
    void (*LastHandleClosed)(void* body);
    // The last reference went; afterwards the memory is freed (file objects: close).
    void (*Delete)(void* body);
};

extern const ObjectType EventType;
extern const ObjectType SymbolicLinkType;
extern const ObjectType DeviceType;

// A zero-filled body of that many bytes, 16-byte aligned, with one reference owned by the caller. Never fails.
void* CreateObject(const ObjectType& type, SIZE_T bodyBytes);
void ReferenceObject(void* body);
// Bug check when the count falls below zero or the object was freed. Returns the remaining count.
LONG_PTR DereferenceObject(void* body);
LONG_PTR ReferenceCount(const void* body);
const ObjectType& TypeOf(const void* body);

// Every object alive, for the check at the end of a run: "Event x2, File x1", empty when none.
std::string DescribeLiveObjects();
}
