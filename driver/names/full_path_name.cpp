#include "driver/names/full_path_name.h"

#include "driver/util/name_matching.h"

namespace
{
NTSTATUS QueryVolumeName(PFLT_VOLUME volume, CountedString* name)
{
    ULONG needed = 0;
    NTSTATUS status = FltGetVolumeName(volume, nullptr, &needed);
    if (status != STATUS_BUFFER_TOO_SMALL)
    {
        DbgPrint("FltGetVolumeName fail\n");
        return status;
    }
    if (needed == 0)
    {
        DbgPrint("FltGetVolumeName Length zero\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!name->Allocate(needed))
    {
        DbgPrint("FltGetVolumeName allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = FltGetVolumeName(volume, name->Address(), &needed);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("FltGetVolumeName fail %x\n", status);
    }
    return status;
}

UNICODE_STRING RelatedName(PFILE_OBJECT fileObject)
{
    PFILE_OBJECT related = fileObject->RelatedFileObject;
    return related != nullptr ? related->FileName : UNICODE_STRING{};
}

// A separator belongs between a related name and a name that begins neither a path nor a stream.
bool WantsSeparator(const UNICODE_STRING& related, const UNICODE_STRING& name)
{
    if (related.Length == 0 || name.Length == 0)
    {
        return false;
    }
    WCHAR first = name.Buffer[0];
    return first != L'\\' && first != L':' && !EndsWith(related, L'\\');
}

// A trailing backslash opens the same directory as none.
UNICODE_STRING WithoutTrailingBackslash(const UNICODE_STRING& name)
{
    constexpr USHORT ShortestWithTrailing = 3;
    if (name.Length >= ShortestWithTrailing && EndsWith(name, L'\\'))
    {
        return SubString(name, 0, static_cast<USHORT>(name.Length - sizeof(WCHAR)));
    }
    return name;
}

// Whether the normalized name names what the file object's own spelling names.
bool SaysTheSame(const UNICODE_STRING& normalized, const UNICODE_STRING& volume, PFILE_OBJECT fileObject)
{
    UNICODE_STRING spelled = WithoutTrailingBackslash(fileObject->FileName);
    USHORT volumeLength = volume.Length < normalized.Length ? volume.Length : normalized.Length;
    UNICODE_STRING belowVolume = RightOf(normalized, volumeLength);
    if (IsEqualNameNoCase(&belowVolume, &spelled))
    {
        return true;
    }
    if (fileObject->RelatedFileObject == nullptr)
    {
        return false;
    }
    const UNICODE_STRING& name = fileObject->FileName;
    USHORT tailLength = normalized.Length < name.Length ? normalized.Length : name.Length;
    UNICODE_STRING tail = RightOf(normalized, static_cast<USHORT>(normalized.Length - tailLength));
    return IsEqualNameNoCase(&tail, &name);
}
}

NTSTATUS CreateFullPathNameFromFltObjects(PCFLT_RELATED_OBJECTS objects, CountedString* path)
{
    CountedString volume;
    NTSTATUS status = QueryVolumeName(objects->Volume, &volume);
    if (status != STATUS_SUCCESS || volume.Get().Buffer == nullptr)
    {
        return status;
    }
    const UNICODE_STRING& name = objects->FileObject->FileName;
    UNICODE_STRING related = RelatedName(objects->FileObject);
    bool separator = WantsSeparator(related, name);

    SIZE_T total = volume.Get().Length + related.Length + name.Length + (separator ? sizeof(WCHAR) : 0);
    if (!path->Allocate(total))
    {
        DbgPrint("Name allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    path->Append(volume.Get());
    path->Append(related);
    if (separator)
    {
        path->Append(L"\\");
    }
    path->Append(name);
    return STATUS_SUCCESS;
}

NTSTATUS CreateFullPathNameFromNameInfo(
    PCFLT_RELATED_OBJECTS objects, PFLT_FILE_NAME_INFORMATION nameInfo, CountedString* path)
{
    const UNICODE_STRING& normalized = nameInfo->Name;
    if (Contains(normalized, L':'))
    {
        return path->Copy(normalized, normalized.MaximumLength) ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    }
    const UNICODE_STRING& volume = nameInfo->Volume;
    const UNICODE_STRING& name = objects->FileObject->FileName;
    SIZE_T spelledLength = volume.Length + name.Length;
    SIZE_T longer = normalized.Length > spelledLength ? normalized.Length : spelledLength;
    if (!path->Allocate(longer + sizeof(WCHAR)))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (SaysTheSame(normalized, volume, objects->FileObject))
    {
        path->Append(normalized);
    }
    else
    {
        path->Append(volume);
        path->Append(name);
    }
    return STATUS_SUCCESS;
}
