// Doubly linked lists of entries that carry their own links in a member `LIST_ENTRY Links`.
// A link whose neighbours do not point back at it stops the system: a list that somebody wrote over is not repaired.
// Nothing here locks, allocates or frees; any IRQL at which the entries may be touched.
#pragma once

#include "driver/util/lock.h"

inline constexpr unsigned FastFailCorruptListEntry = 3;

template <class Entry>
class List
{
public:
    void Initialize()
    {
        head_.Flink = &head_;
        head_.Blink = &head_;
    }

    bool IsEmpty() const { return head_.Flink == &head_; }

    // Behind all others. The list does not own the entry, which must be in no list.
    void Append(Entry* entry)
    {
        LIST_ENTRY* last = head_.Blink;
        if (last->Flink != &head_)
        {
            __fastfail(FastFailCorruptListEntry);
        }
        entry->Links.Flink = &head_;
        entry->Links.Blink = last;
        last->Flink = &entry->Links;
        head_.Blink = &entry->Links;
    }

    // Out of whatever list it is in; the entry is then its caller's to free.
    static void Unlink(Entry* entry)
    {
        LIST_ENTRY* next = entry->Links.Flink;
        LIST_ENTRY* previous = entry->Links.Blink;
        if (next->Blink != &entry->Links || previous->Flink != &entry->Links)
        {
            __fastfail(FastFailCorruptListEntry);
        }
        previous->Flink = next;
        next->Blink = previous;
    }

    // The oldest entry, or null.
    Entry* First() const { return IsEmpty() ? nullptr : FromLinks(head_.Flink); }

    // Calls visit(entry) from the oldest to the newest; the visited entry may be unlinked and freed.
    template <class Visit>
    void ForEach(Visit&& visit) const
    {
        for (LIST_ENTRY* links = head_.Flink; links != &head_;)
        {
            LIST_ENTRY* next = links->Flink;
            visit(FromLinks(links));
            links = next;
        }
    }

    // The oldest entry for which matches(entry) holds, or null.
    template <class Matches>
    Entry* Find(Matches&& matches) const
    {
        for (LIST_ENTRY* links = head_.Flink; links != &head_; links = links->Flink)
        {
            Entry* entry = FromLinks(links);
            if (matches(entry))
            {
                return entry;
            }
        }
        return nullptr;
    }

    // Walks the whole list.
    ULONG Count() const
    {
        ULONG count = 0;
        ForEach([&count](Entry*) { ++count; });
        return count;
    }

private:
    static Entry* FromLinks(LIST_ENTRY* links) { return CONTAINING_RECORD(links, Entry, Links); }

    LIST_ENTRY head_;
};

// A list and the lock that guards it.
template <class Entry>
struct LockedList
{
    FastLock Lock;
    List<Entry> Entries GUARDED_BY(Lock);
};
