#include "hosted/fs/target_name.h"

#include "hosted/fs/names.h"

namespace hosted
{
namespace
{
constexpr WideView NtPrefix = L"\\??\\";

// Cuts "\??\C:" or "\Device\HarddiskVolume1" off a path on this volume; another volume's path is not touched.
WideView PathOnVolume(const Volume& volume, WideView path)
{
    const WideString drive = WideString(NtPrefix) + volume.DosName;
    for (WideView prefix : {WideView(drive), WideView(volume.DeviceName)})
    {
        if (prefix.size() > NtPrefix.size() && path.size() > prefix.size() && IsAtOrBelow(path, prefix))
        {
            return path.substr(prefix.size());
        }
    }
    return path;
}
}

NTSTATUS ParseTargetName(const Volume& volume, const FLT_IO_PARAMETER_BLOCK& operation, TargetName* target)
{
    const auto& parameters = operation.Parameters.SetFileInformation;
    const auto* rename = static_cast<const FILE_RENAME_INFORMATION*>(parameters.InfoBuffer);
    constexpr ULONG Fixed = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    if (parameters.Length < Fixed || rename->FileNameLength > parameters.Length - Fixed)
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    WideView text(rename->FileName, rename->FileNameLength / sizeof(WCHAR));
    const size_t lastBackslash = text.rfind(L'\\');
    if (parameters.ParentOfTarget != nullptr)
    {
        if (parameters.ParentOfTarget->FsContext == nullptr)
        {
            return STATUS_INVALID_PARAMETER;
        }
        target->Parent = parameters.ParentOfTarget;
        target->Name = lastBackslash == WideView::npos ? text : text.substr(lastBackslash + 1);
        return STATUS_SUCCESS;
    }
    if (rename->RootDirectory != nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (lastBackslash == WideView::npos)
    {
        target->SameDirectory = true;
        target->Name = text;
        return STATUS_SUCCESS;
    }
    ParsedPath parsed;
    NTSTATUS status = ParsePath(PathOnVolume(volume, text), false, &parsed);
    if (!NT_SUCCESS(status) || parsed.StreamGiven || parsed.Components.empty())
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    target->Name = std::move(parsed.Components.back());
    parsed.Components.pop_back();
    target->Directory = std::move(parsed.Components);
    return STATUS_SUCCESS;
}
}
