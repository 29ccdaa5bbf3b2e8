// The exported routines about references and handles.
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/caller.h"

namespace hosted
{
namespace
{
const HANDLE CurrentProcessHandle = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
const HANDLE CurrentThreadHandle = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2));

// The two values that stand for the caller itself; null for any other handle.
void* PseudoHandleBody(HANDLE handle)
{
    if (handle == CurrentProcessHandle)
    {
        return Caller().Process();
    }
    return handle == CurrentThreadHandle ? Caller().Thread() : nullptr;
}

NTSTATUS ReferencePseudoHandle(void* self, const ObjectType* type, void** body)
{
    if (type != nullptr && type != &TypeOf(self))
    {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    ReferenceObject(self);
    *body = self;
    return STATUS_SUCCESS;
}

const ObjectType* FromExported(POBJECT_TYPE type)
{
    return reinterpret_cast<const ObjectType*>(type);
}
}
}

extern "C" NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
    KPROCESSOR_MODE AccessMode, PVOID* Object, POBJECT_HANDLE_INFORMATION HandleInformation)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ObReferenceObjectByHandle");
    if (ObjectType == nullptr && AccessMode == UserMode)
    {
        BugCheck("object-type-missing", "ObReferenceObjectByHandle for user mode without an object type");
    }
    *Object = nullptr;
    if (InjectFailure("ObReferenceObjectByHandle"))
    {
        return STATUS_INVALID_HANDLE;
    }
    ACCESS_MASK granted = STANDARD_RIGHTS_ALL | 0xFFFF;
    NTSTATUS status;
    if (void* self = PseudoHandleBody(Handle))
    {
        status = ReferencePseudoHandle(self, FromExported(ObjectType), Object);
    }
    else
    {
        HandleTable& table = TableOf(Handle);
        status = table.Reference(Handle, DesiredAccess, FromExported(ObjectType), AccessMode, Object);
        table.Granted(Handle, &granted);
    }
    if (NT_SUCCESS(status) && HandleInformation != nullptr)
    {
        HandleInformation->HandleAttributes = 0;
        HandleInformation->GrantedAccess = granted;
    }
    return status;
}

extern "C" NTSTATUS NTAPI ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
    ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode, PHANDLE Handle)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ObOpenObjectByPointer");
    if (PassedAccessState != nullptr)
    {
        BugCheck("access-state", "ObOpenObjectByPointer with an access state, which nothing here can make");
    }
    *Handle = nullptr;
    if (InjectFailure("ObOpenObjectByPointer"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    bool matches = ObjectType != nullptr ? FromExported(ObjectType) == &TypeOf(Object) : AccessMode == KernelMode;
    if (!matches)
    {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *Handle = TableFor(HandleAttributes).Insert(Object, DesiredAccess);
    return STATUS_SUCCESS;
}

extern "C" LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object)
{
    hosted::RequireIrql(DISPATCH_LEVEL, "ObfDereferenceObject");
    return hosted::DereferenceObject(Object);
}

extern "C" NTSTATUS NTAPI ZwClose(HANDLE Handle)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ZwClose");
    if (PseudoHandleBody(Handle) != nullptr)
    {
        return STATUS_SUCCESS;
    }
    HandleTable& table = TableOf(Handle);
    NTSTATUS status = table.Close(Handle);
    if (status == STATUS_INVALID_HANDLE && &table == &KernelHandles())
    {
        BugCheck("kernel-handle-invalid", "ZwClose of %p, which is not open", Handle);
    }
    return status;
}
