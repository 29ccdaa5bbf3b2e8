// File name information: what FltGetFileNameInformation hands out and how it is taken apart.
#include "hosted/flt/callback_data.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <cstring>
#include <mutex>
#include <unordered_map>

namespace hosted
{
namespace
{
constexpr ULONG NameTag = 'nFMF';
constexpr NTSTATUS NameCacheMiss = static_cast<NTSTATUS>(0xC01C0018);
constexpr ULONG FormatMask = 0x00FF;
constexpr ULONG QueryMask = 0xFF00;
constexpr ULONG CreateOptionsMask = 0x00FFFFFF;
constexpr SIZE_T LongestName = 0xFFFE;

struct Names
{
    std::mutex Lock;
    std::unordered_map<PFLT_FILE_NAME_INFORMATION, bool> Alive; // true: on a network volume
};

Names& LiveNames()
{
    static auto& names = *new Names;
    return names;
}

// Nobody knows a name where none is being opened or open.
NTSTATUS CheckRequest(const ShownOperation& shown)
{
    const FLT_IO_PARAMETER_BLOCK& block = shown.Block;
    const bool post = shown.Data.Flags & FLTFL_CALLBACK_DATA_POST_OPERATION;
    const bool paging = block.IrpFlags & (IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO);
    const bool notOpened = block.MajorFunction == IRP_MJ_CREATE && post && !NT_SUCCESS(shown.Data.IoStatus.Status);
    if (block.TargetFileObject == nullptr || block.MajorFunction == IRP_MJ_CLOSE || paging || notOpened)
    {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    return STATUS_SUCCESS;
}

ULONG CreateOptions(const FLT_IO_PARAMETER_BLOCK& block)
{
    return block.MajorFunction == IRP_MJ_CREATE ? block.Parameters.Create.Options & CreateOptionsMask : 0;
}

// The name as the opener spelled it.
WideString OpenedPath(PFILE_OBJECT file)
{
    WideString path;
    const PFILE_OBJECT related = file->RelatedFileObject;
    const WideView name = View(file->FileName);
    if (related != nullptr)
    {
        path = WideString(View(related->FileName));
        const bool needsSeparator = !name.empty() && name[0] != L'\\' && name[0] != L':';
        if (needsSeparator && (path.empty() || path.back() != L'\\'))
        {
            path += L'\\';
        }
    }
    return path + WideString(name);
}

NTSTATUS FindPath(const ShownOperation& shown, ULONG format, WideString* path)
{
    const PFILE_OBJECT file = shown.Block.TargetFileObject;
    const ULONG options = CreateOptions(shown.Block);
    if (file->Flags & FO_VOLUME_OPEN)
    {
        path->clear();
        return STATUS_SUCCESS;
    }
    // A file id says nothing, so even the opened name of such a file is asked of the file system.
    if (format == FLT_FILE_NAME_OPENED && !(options & FILE_OPEN_BY_FILE_ID))
    {
        *path = OpenedPath(file);
        return STATUS_SUCCESS;
    }
    return shown.Instance->Volume->Files->NormalizedName(file, options, path);
}

UNICODE_STRING Part(const UNICODE_STRING& whole, SIZE_T first, SIZE_T count)
{
    const auto bytes = static_cast<USHORT>(count * sizeof(WCHAR));
    if (bytes == 0)
    {
        return {};
    }
    return {bytes, bytes, whole.Buffer + first};
}

NTSTATUS MakeInformation(const Volume& volume, const WideString& path, ULONG format, PFLT_FILE_NAME_INFORMATION* result)
{
    const WideString full = volume.DeviceName + path;
    const SIZE_T bytes = full.size() * sizeof(WCHAR);
    if (bytes > LongestName)
    {
        return STATUS_NAME_TOO_LONG;
    }
    // Two blocks, so that an overrun of the name's characters hits the end of its block.
    auto* information = static_cast<PFLT_FILE_NAME_INFORMATION>(
        ExAllocatePoolWithTag(PagedPool, sizeof(FLT_FILE_NAME_INFORMATION), NameTag));
    auto* text = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, NameTag));
    if (information == nullptr || text == nullptr)
    {
        if (information != nullptr)
        {
            ExFreePoolWithTag(information, NameTag);
        }
        if (text != nullptr)
        {
            ExFreePoolWithTag(text, NameTag);
        }
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memcpy(text, full.data(), bytes);
    *information = {};
    information->Size = sizeof(FLT_FILE_NAME_INFORMATION);
    information->Format = format;
    information->Name = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes), text};
    information->Volume = Part(information->Name, 0, volume.DeviceName.size());
    std::lock_guard guard(LiveNames().Lock);
    LiveNames().Alive[information] = volume.DeviceKind == FILE_DEVICE_NETWORK_FILE_SYSTEM;
    *result = information;
    return STATUS_SUCCESS;
}

// "\server\share" of a network path.
SIZE_T ShareLength(WideView path)
{
    SIZE_T end = 0;
    for (int component = 0; component < 2 && end < path.size() && path[end] == L'\\'; ++component)
    {
        end = std::min(path.find(L'\\', end + 1), path.size());
    }
    return end;
}

void Parse(PFLT_FILE_NAME_INFORMATION information, bool network)
{
    const UNICODE_STRING& name = information->Name;
    const WideView text = View(name);
    const SIZE_T volumeEnd = information->Volume.Length / sizeof(WCHAR);
    const SIZE_T shareLength = network ? ShareLength(text.substr(volumeEnd)) : 0;
    information->Share = Part(name, volumeEnd, shareLength);

    // Slashes of a stream's name do not exist, so the last one ends the directory.
    const SIZE_T pathStart = volumeEnd + shareLength;
    const SIZE_T slash = text.rfind(L'\\');
    const SIZE_T finalStart = slash == WideView::npos || slash < pathStart ? pathStart : slash + 1;
    information->ParentDir = Part(name, pathStart, finalStart - pathStart);
    information->FinalComponent = Part(name, finalStart, text.size() - finalStart);

    const SIZE_T colon = std::min(text.find(L':', finalStart), text.size());
    information->Stream = Part(name, colon, text.size() - colon);
    const WideView fileName = text.substr(finalStart, colon - finalStart);
    const SIZE_T dot = fileName.rfind(L'.');
    if (dot != WideView::npos)
    {
        information->Extension = Part(name, finalStart + dot + 1, fileName.size() - dot - 1);
    }
    information->NamesParsed = FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT | FLTFL_FILE_NAME_PARSED_EXTENSION |
                               FLTFL_FILE_NAME_PARSED_STREAM | FLTFL_FILE_NAME_PARSED_PARENT_DIR;
}

bool RequireAlive(PFLT_FILE_NAME_INFORMATION information, const char* routine)
{
    std::lock_guard guard(LiveNames().Lock);
    const auto found = LiveNames().Alive.find(information);
    if (found == LiveNames().Alive.end())
    {
        BugCheck("FLT_NAME_NOT_ALIVE", "%s: %p is no file name information, or was released", routine,
            static_cast<void*>(information));
    }
    return found->second;
}
}

std::string DescribeNames()
{
    std::lock_guard guard(LiveNames().Lock);
    const SIZE_T count = LiveNames().Alive.size();
    return count == 0 ? "" : "file name information x" + std::to_string(count);
}
}

using namespace hosted;

extern "C" NTSTATUS NTAPI FltGetFileNameInformation(
    PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions, PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    RequireIrql(APC_LEVEL, "FltGetFileNameInformation");
    const ShownOperation& shown = OperationOf(CallbackData, "FltGetFileNameInformation");
    *FileNameInformation = nullptr;
    if (InjectFailure("FltGetFileNameInformation"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const ULONG format = NameOptions & FormatMask;
    const ULONG query = NameOptions & QueryMask;
    if (format < FLT_FILE_NAME_NORMALIZED || format > FLT_FILE_NAME_SHORT || query < FLT_FILE_NAME_QUERY_DEFAULT ||
        query > FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP)
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = CheckRequest(shown);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (format == FLT_FILE_NAME_SHORT)
    {
        BugCheck("NOT_MODELLED", "FltGetFileNameInformation: short names");
    }
    if (query == FLT_FILE_NAME_QUERY_CACHE_ONLY)
    {
        // Names are not cached here.
        return NameCacheMiss;
    }
    WideString path;
    status = FindPath(shown, format, &path);
    return NT_SUCCESS(status) ? MakeInformation(*shown.Instance->Volume, path, format, FileNameInformation) : status;
}

extern "C" NTSTATUS NTAPI FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    RequireIrql(APC_LEVEL, "FltParseFileNameInformation");
    const bool network = RequireAlive(FileNameInformation, "FltParseFileNameInformation");
    if (InjectFailure("FltParseFileNameInformation"))
    {
        return STATUS_INVALID_PARAMETER;
    }
    Parse(FileNameInformation, network);
    return STATUS_SUCCESS;
}

extern "C" void NTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    RequireIrql(APC_LEVEL, "FltReleaseFileNameInformation");
    RequireAlive(FileNameInformation, "FltReleaseFileNameInformation");
    {
        std::lock_guard guard(LiveNames().Lock);
        LiveNames().Alive.erase(FileNameInformation);
    }
    ExFreePoolWithTag(FileNameInformation->Name.Buffer, NameTag);
    ExFreePoolWithTag(FileNameInformation, NameTag);
}
