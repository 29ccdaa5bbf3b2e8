#include "hosted/ob/object.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/object_counts.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <unordered_set>

namespace hosted
{
const ObjectType EventType = {"Event", nullptr, nullptr};
const ObjectType DeviceType = {"Device", nullptr, nullptr};

namespace
{
struct alignas(16) ObjectHeader
{
    const ObjectType* Type;
    std::atomic<LONG_PTR> References;
    std::atomic<LONG_PTR> Handles;
};

// Every live object, so that a stale pointer is known as one instead of being read.
struct LiveSet
{
    std::shared_mutex Lock;
    std::unordered_set<const ObjectHeader*> Headers;
};

LiveSet& Live()
{
    static LiveSet& live = *new LiveSet;
    return live;
}

ObjectHeader* HeaderAt(const void* body)
{
    // As a number: a stale or null pointer must be looked up, not reckoned with.
    return reinterpret_cast<ObjectHeader*>(reinterpret_cast<ULONG_PTR>(body) - sizeof(ObjectHeader));
}

ObjectHeader* HeaderOf(const void* body)
{
    ObjectHeader* header = HeaderAt(body);
    std::shared_lock lock(Live().Lock);
    if (!Live().Headers.contains(header))
    {
        BugCheck("object-not-live", "no object stands at %p", body);
    }
    return header;
}

void FreeObject(void* body)
{
    ObjectHeader* header = HeaderAt(body);
    if (header->Type->Delete != nullptr)
    {
        header->Type->Delete(body);
    }
    {
        std::unique_lock lock(Live().Lock);
        Live().Headers.erase(header);
    }
    header->~ObjectHeader();
    free(header);
}
}

void* CreateObject(const ObjectType& type, SIZE_T bodyBytes)
{
    void* memory = nullptr;
    SIZE_T bytes = sizeof(ObjectHeader) + bodyBytes;
    if (posix_memalign(&memory, alignof(ObjectHeader), bytes) != 0)
    {
        BugCheck("object-memory", "%llu bytes for an object of type %s", bytes, type.Name);
    }
    memset(memory, 0, bytes);
    auto* header = new (memory) ObjectHeader{&type, 1, 0};
    std::unique_lock lock(Live().Lock);
    Live().Headers.insert(header);
    return header + 1;
}

void ReferenceObject(void* body)
{
    ObjectHeader* header = HeaderOf(body);
    if (header->References.fetch_add(1, std::memory_order_relaxed) <= 0)
    {
        BugCheck("object-not-live", "the %s at %p is being deleted", header->Type->Name, body);
    }
}

LONG_PTR DereferenceObject(void* body)
{
    ObjectHeader* header = HeaderOf(body);
    LONG_PTR left = header->References.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left < 0)
    {
        BugCheck("object-over-dereferenced", "the %s at %p", header->Type->Name, body);
    }
    if (left == 0)
    {
        // A type's own work needs the lowest level; a plain object goes at once.
        if (header->Type->Delete == nullptr)
        {
            FreeObject(body);
        }
        else
        {
            RunAtPassiveLevel(FreeObject, body);
        }
    }
    return left;
}

LONG_PTR ReferenceCount(const void* body)
{
    return HeaderOf(body)->References.load(std::memory_order_acquire);
}

const ObjectType& TypeOf(const void* body)
{
    return *HeaderOf(body)->Type;
}

void AddHandleCount(void* body)
{
    HeaderOf(body)->Handles.fetch_add(1, std::memory_order_relaxed);
}

void DropHandleCount(void* body)
{
    ObjectHeader* header = HeaderOf(body);
    if (header->Handles.fetch_sub(1, std::memory_order_acq_rel) == 1 && header->Type->LastHandleClosed != nullptr)
    {
        header->Type->LastHandleClosed(body);
    }
}

std::string DescribeLiveObjects()
{
    std::map<std::string, size_t> counts;
    {
        std::shared_lock lock(Live().Lock);
        for (const ObjectHeader* header : Live().Headers)
        {
            ++counts[header->Type->Name];
        }
    }
    std::string text;
    for (const auto& [name, count] : counts)
    {
        text += (text.empty() ? "" : ", ") + name + " x" + std::to_string(count);
    }
    return text;
}
}
