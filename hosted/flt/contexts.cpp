// Stream contexts: memory of the filter's that the filter manager hangs on a stream and counts references of.
#include "hosted/flt/filter_state.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <map>
#include <mutex>
#include <unordered_map>

namespace hosted
{
namespace
{
using Stream = PVOID; // FILE_OBJECT::FsContext

struct StreamKey
{
    Stream Header;
    PFLT_INSTANCE Instance;
    auto operator<=>(const StreamKey&) const = default;
};

struct Context
{
    PFLT_FILTER Filter;
    FLT_CONTEXT_TYPE Type;
    ULONG PoolTag;
    PFLT_CONTEXT_CLEANUP_CALLBACK Cleanup;
    LONG References = 1;
    bool Linked = false;
};

constexpr NTSTATUS ContextAlreadyLinked = static_cast<NTSTATUS>(0xC01C001C);

struct Table
{
    std::mutex Lock; // never held across a cleanup callback
    std::unordered_map<PFLT_CONTEXT, Context> Contexts;
    std::map<StreamKey, PFLT_CONTEXT> Links;
};

Table& Contexts()
{
    static auto& table = *new Table;
    return table;
}

// The table's lock is held.
Context& Find(PFLT_CONTEXT context, const char* routine)
{
    const auto found = Contexts().Contexts.find(context);
    if (found == Contexts().Contexts.end())
    {
        BugCheck(
            "FLT_CONTEXT_NOT_ALIVE", "%s: %p is no context, or all its references were released", routine, context);
    }
    return found->second;
}

void Free(PFLT_CONTEXT context, const Context& record)
{
    if (record.Cleanup != nullptr)
    {
        record.Cleanup(context, record.Type);
    }
    ExFreePoolWithTag(context, record.PoolTag);
}

void Release(PFLT_CONTEXT context, const char* routine)
{
    Context last;
    {
        std::lock_guard guard(Contexts().Lock);
        Context& record = Find(context, routine);
        if (--record.References > 0)
        {
            return;
        }
        if (record.Linked)
        {
            BugCheck(
                "FLT_CONTEXT_OVER_RELEASED", "%s: the stream's own reference of %p was released", routine, context);
        }
        last = record;
        Contexts().Contexts.erase(context);
    }
    Free(context, last);
}

const FLT_CONTEXT_REGISTRATION* FindRegistration(PFLT_FILTER filter, FLT_CONTEXT_TYPE type, SIZE_T size)
{
    for (const FLT_CONTEXT_REGISTRATION& entry : filter->Contexts)
    {
        if (entry.ContextType == type && entry.Size == size)
        {
            return &entry;
        }
    }
    return nullptr;
}

// The links that the range covers are cut, and the streams' references given up.
template <class Wanted>
void CutLinks(Wanted wanted, const char* why)
{
    std::vector<PFLT_CONTEXT> cut;
    {
        std::lock_guard guard(Contexts().Lock);
        std::erase_if(Contexts().Links,
            [&](const auto& link)
            {
                if (!wanted(link.first))
                {
                    return false;
                }
                Find(link.second, why).Linked = false;
                cut.push_back(link.second);
                return true;
            });
    }
    for (PFLT_CONTEXT context : cut)
    {
        Release(context, why);
    }
}

void RequireSameVolume(PFLT_INSTANCE instance, PFILE_OBJECT file, const char* routine)
{
    Volume* volume = VolumeOf(file->DeviceObject);
    if (volume != nullptr && volume != instance->Volume)
    {
        BugCheck("FLT_WRONG_INSTANCE", "%s: the file is on another volume than the instance", routine);
    }
}

// Links the context in place of whatever the stream had, which comes back with the stream's reference of it. The
// table's lock is held.
NTSTATUS Link(const StreamKey& key, FLT_SET_CONTEXT_OPERATION operation, PFLT_CONTEXT context, PFLT_CONTEXT* old)
{
    Context& record = Find(context, "FltSetStreamContext");
    if (record.Linked)
    {
        return ContextAlreadyLinked;
    }
    const auto found = Contexts().Links.find(key);
    if (found != Contexts().Links.end())
    {
        Context& present = Find(found->second, "FltSetStreamContext");
        *old = found->second;
        if (operation == FLT_SET_CONTEXT_KEEP_IF_EXISTS)
        {
            ++present.References;
            return STATUS_FLT_CONTEXT_ALREADY_DEFINED;
        }
        present.Linked = false;
    }
    Contexts().Links[key] = context;
    record.Linked = true;
    ++record.References;
    return STATUS_SUCCESS;
}
}

void TearDownContexts(PFLT_INSTANCE instance)
{
    CutLinks([instance](const StreamKey& key) { return key.Instance == instance; }, "tearing an instance down");
}

void FilterStreamDeleted(PFSRTL_COMMON_FCB_HEADER stream)
{
    // Streams come and go often and few of them have contexts, so this looks before it searches.
    const StreamKey first{stream, nullptr};
    {
        std::lock_guard guard(Contexts().Lock);
        const auto found = Contexts().Links.lower_bound(first);
        if (found == Contexts().Links.end() || found->first.Header != stream)
        {
            return;
        }
    }
    CutLinks([stream](const StreamKey& key) { return key.Header == stream; }, "deleting a stream");
}

std::string DescribeContexts(PFLT_FILTER filter)
{
    std::lock_guard guard(Contexts().Lock);
    std::string text;
    for (const auto& [context, record] : Contexts().Contexts)
    {
        if (filter == nullptr || record.Filter == filter)
        {
            text += text.empty() ? "" : ", ";
            text += "stream context with " + std::to_string(record.References) + " references";
        }
    }
    return text;
}
}

using namespace hosted;

extern "C" NTSTATUS NTAPI FltAllocateContext(PFLT_FILTER Filter, FLT_CONTEXT_TYPE ContextType, SIZE_T ContextSize,
    POOL_TYPE PoolType, PFLT_CONTEXT* ReturnedContext)
{
    RequireIrql(APC_LEVEL, "FltAllocateContext");
    RequireFilter(Filter, "FltAllocateContext");
    *ReturnedContext = nullptr;
    const unsigned kind = static_cast<unsigned>(PoolType) & ~static_cast<unsigned>(POOL_ZERO_ALLOCATION);
    if (kind != NonPagedPool && kind != NonPagedPoolNx)
    {
        BugCheck("FLT_CONTEXT_POOL", "FltAllocateContext: pool type 0x%x is not non-paged", kind);
    }
    if (InjectFailure("FltAllocateContext"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const FLT_CONTEXT_REGISTRATION* registration = FindRegistration(Filter, ContextType, ContextSize);
    if (registration == nullptr)
    {
        return STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND;
    }
    const PVOID memory = ExAllocatePoolWithTag(PoolType, ContextSize, registration->PoolTag);
    if (memory == nullptr)
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    {
        std::lock_guard guard(Contexts().Lock);
        Contexts().Contexts[memory] = {
            Filter, ContextType, registration->PoolTag, registration->ContextCleanupCallback};
    }
    *ReturnedContext = memory;
    return STATUS_SUCCESS;
}

extern "C" void NTAPI FltReleaseContext(PFLT_CONTEXT Context)
{
    RequireIrql(DISPATCH_LEVEL, "FltReleaseContext");
    Release(Context, "FltReleaseContext");
}

extern "C" NTSTATUS NTAPI FltSetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
    FLT_SET_CONTEXT_OPERATION Operation, PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    const char* routine = "FltSetStreamContext";
    RequireIrql(APC_LEVEL, routine);
    RequireInstance(Instance, routine);
    RequireSameVolume(Instance, FileObject, routine);
    if (OldContext != nullptr)
    {
        *OldContext = nullptr;
    }
    if (InjectFailure(routine))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (NewContext == nullptr ||
        (Operation != FLT_SET_CONTEXT_REPLACE_IF_EXISTS && Operation != FLT_SET_CONTEXT_KEEP_IF_EXISTS))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (FileObject->FsContext == nullptr)
    {
        return STATUS_NOT_SUPPORTED;
    }
    PFLT_CONTEXT old = nullptr;
    NTSTATUS status;
    {
        std::lock_guard guard(Contexts().Lock);
        status = Link({FileObject->FsContext, Instance}, Operation, NewContext, &old);
    }
    if (OldContext != nullptr)
    {
        *OldContext = old;
    }
    else if (old != nullptr)
    {
        Release(old, routine);
    }
    return status;
}

extern "C" NTSTATUS NTAPI FltGetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* Context)
{
    RequireIrql(APC_LEVEL, "FltGetStreamContext");
    RequireInstance(Instance, "FltGetStreamContext");
    RequireSameVolume(Instance, FileObject, "FltGetStreamContext");
    *Context = nullptr;
    if (InjectFailure("FltGetStreamContext"))
    {
        return STATUS_NOT_FOUND;
    }
    if (FileObject->FsContext == nullptr)
    {
        return STATUS_NOT_SUPPORTED;
    }
    std::lock_guard guard(Contexts().Lock);
    const auto found = Contexts().Links.find({FileObject->FsContext, Instance});
    if (found == Contexts().Links.end())
    {
        return STATUS_NOT_FOUND;
    }
    ++Find(found->second, "FltGetStreamContext").References;
    *Context = found->second;
    return STATUS_SUCCESS;
}
