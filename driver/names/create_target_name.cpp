#include "driver/core/global_state.h"
#include "driver/names/full_path_name.h"

namespace
{
// On Windows 7 a name query from deep inside a create needs more stack than may be left.
constexpr SIZE_T EnoughStack = 12788;
constexpr SIZE_T ExpandedStack = 24576;

struct NameQuery
{
    PFLT_CALLBACK_DATA Data;
    PFLT_FILE_NAME_INFORMATION Information;
    NTSTATUS Status;
};

void NTAPI RunNameQuery(PVOID parameter)
{
    auto query = static_cast<NameQuery*>(parameter);
    query->Status = FltGetFileNameInformation(
        query->Data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_DEFAULT, &query->Information);
}

SIZE_T StackLeft()
{
    ULONG_PTR low = 0;
    ULONG_PTR high = 0;
    IoGetStackLimits(&low, &high);
    // A local variable stands for the place that the stack has reached.
    return reinterpret_cast<ULONG_PTR>(&low) - low;
}

NTSTATUS QueryNormalizedName(PFLT_CALLBACK_DATA data, PFLT_FILE_NAME_INFORMATION* information)
{
    NameQuery query = {data, nullptr, STATUS_UNSUCCESSFUL};
    if (Global.OsVersion == OsVersionWindows7 && StackLeft() < EnoughStack)
    {
        NTSTATUS status = KeExpandKernelStackAndCallout(RunNameQuery, &query, ExpandedStack);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
    }
    else
    {
        RunNameQuery(&query);
    }
    *information = query.Information;
    return query.Status;
}

NTSTATUS PathFromNameInfo(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PFLT_FILE_NAME_INFORMATION information, CountedString* path)
{
    NTSTATUS status = FltParseFileNameInformation(information);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("PreCreate - FltParseFileNameInformation fail %x\n", status);
        return status;
    }
    if (FlagOn(data->Iopb->Parameters.Create.Options, FILE_OPEN_BY_FILE_ID))
    {
        // The file object's name is an id then, which says nothing about the path.
        if (!path->Copy(information->Name, information->Name.Length))
        {
            DbgPrint("PreCreate - TargetName allocate error\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        return STATUS_SUCCESS;
    }
    status = CreateFullPathNameFromNameInfo(objects, information, path);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("PreCreate - CreateFullPathNameFromNameInfo fail %x %wZ\n", status, &objects->FileObject->FileName);
    }
    return status;
}
}

NTSTATUS GetCreateTargetName(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, CountedString* path)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (!FlagOn(data->Iopb->Parameters.Create.Options, FILE_OPEN_BY_FILE_ID))
    {
        status = CreateFullPathNameFromFltObjects(objects, path);
        if (NT_SUCCESS(status))
        {
            return status;
        }
        DbgPrint("CreateFullPathNameFromFltObjects fail %x %wZ\n", status, &objects->FileObject->FileName);
    }
    PFLT_FILE_NAME_INFORMATION information = nullptr;
    status = QueryNormalizedName(data, &information);
    if (!NT_SUCCESS(status))
    {
        TracePrint("PreCreate - FltGetFileNameInformation fail %x %wZ\n", status, &objects->FileObject->FileName);
        return STATUS_ACCESS_DENIED;
    }
    if (information == nullptr)
    {
        DbgPrint("PreCreate - FileNameInformation is null\n");
        return STATUS_SUCCESS;
    }
    status = PathFromNameInfo(data, objects, information, path);
    FltReleaseFileNameInformation(information);
    return NT_SUCCESS(status) ? status : STATUS_ACCESS_DENIED;
}
