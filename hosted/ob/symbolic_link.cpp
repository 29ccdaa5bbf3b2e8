// The exported routines about symbolic links.
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/handle_table.h"
#include "hosted/ob/name_table.h"

namespace hosted
{
namespace
{
NTSTATUS OpenLink(const OBJECT_ATTRIBUTES& attributes, SymbolicLink** link)
{
    if (attributes.Length != sizeof(OBJECT_ATTRIBUTES))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (attributes.RootDirectory != nullptr)
    {
        // Directories have no handles here, so whatever this handle is, it is not one.
        void* root;
        NTSTATUS status =
            TableOf(attributes.RootDirectory).Reference(attributes.RootDirectory, 0, nullptr, KernelMode, &root);
        if (NT_SUCCESS(status))
        {
            DereferenceObject(root);
            status = STATUS_OBJECT_TYPE_MISMATCH;
        }
        return status;
    }
    if (attributes.ObjectName == nullptr || attributes.ObjectName->Length % sizeof(WCHAR) != 0)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    return ReferenceSymbolicLink(View(*attributes.ObjectName), link);
}
}
}

extern "C" NTSTATUS NTAPI ZwOpenSymbolicLinkObject(
    PHANDLE LinkHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ZwOpenSymbolicLinkObject");
    if (InjectFailure("ZwOpenSymbolicLinkObject"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    SymbolicLink* link = nullptr;
    NTSTATUS status = OpenLink(*ObjectAttributes, &link);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    *LinkHandle = TableFor(ObjectAttributes->Attributes).Insert(link, DesiredAccess);
    DereferenceObject(link);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI ZwQuerySymbolicLinkObject(
    HANDLE LinkHandle, PUNICODE_STRING LinkTarget, PULONG ReturnedLength)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ZwQuerySymbolicLinkObject");
    if (InjectFailure("ZwQuerySymbolicLinkObject"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    void* body;
    NTSTATUS status = TableOf(LinkHandle).Reference(LinkHandle, 0, &SymbolicLinkType, KernelMode, &body);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    const auto* link = static_cast<const SymbolicLink*>(body);
    // The terminator is part of what is copied, and so of the room that is needed.
    SIZE_T needed = (link->TargetCharacters + 1) * sizeof(WCHAR);
    if (ReturnedLength != nullptr)
    {
        *ReturnedLength = static_cast<ULONG>(needed);
    }
    if (needed > LinkTarget->MaximumLength)
    {
        status = STATUS_BUFFER_TOO_SMALL;
    }
    else
    {
        RtlCopyMemory(LinkTarget->Buffer, link->Target, needed);
        LinkTarget->Length = static_cast<USHORT>(needed - sizeof(WCHAR));
    }
    DereferenceObject(body);
    return status;
}

extern "C" NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "IoCreateSymbolicLink");
    if (InjectFailure("IoCreateSymbolicLink"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return InsertSymbolicLink(View(*SymbolicLinkName), View(*DeviceName));
}

// Fails only for a name that does not exist, so no failure is ever put in.
extern "C" NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName)
{
    hosted::RequireIrql(PASSIVE_LEVEL, "IoDeleteSymbolicLink");
    return hosted::RemoveSymbolicLink(hosted::View(*SymbolicLinkName));
}
