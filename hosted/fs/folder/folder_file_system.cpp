// Mounting a folder, and the names of its files for filters.
#include "hosted/fs/folder/folder_file_system.h"

#include "hosted/ke/bug_check.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace hosted
{
FolderFileSystem::FolderFileSystem(Volume& volume, FolderOptions options)
    : StreamFileSystem(volume, false), options_(std::move(options)),
      rule_(options_.ReadOnly ? LookupRule::FollowLinks : LookupRule::Strict),
      folder_(open(options_.Folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), journal_(folder_.Get()),
      root_(std::make_shared<FolderEntry>(nullptr, WideString()))
{
    if (!folder_)
    {
        BugCheck("FILE_SYSTEM", "the folder \"%s\" cannot be opened: %s", options_.Folder.c_str(), strerror(errno));
    }
}

FolderFileSystem::~FolderFileSystem()
{
    RequireNothingActive();
}

NTSTATUS FolderFileSystem::NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path)
{
    std::lock_guard guard(tree_);
    if (const FolderOpen* open = FolderOpenOf(fileObject))
    {
        if (open->Entry == nullptr)
        {
            path->clear();
            return STATUS_SUCCESS;
        }
        *path = open->Entry->Path();
        return open->Entry->Gone ? STATUS_FILE_DELETED : STATUS_SUCCESS;
    }
    const WideView name = View(fileObject->FileName);
    if (options & FILE_OPEN_BY_FILE_ID)
    {
        return STATUS_NOT_SUPPORTED;
    }
    if (fileObject->RelatedFileObject == nullptr && name.empty())
    {
        path->clear();
        return STATUS_SUCCESS;
    }
    ParsedPath parsed;
    NTSTATUS status = ParsePath(name, IsRelativeName(fileObject), &parsed);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    *path = StartOf(fileObject)->Path();
    for (const WideString& component : parsed.Components)
    {
        *path += (path->size() > 1 ? L"\\" : L"") + component;
    }
    *path += parsed.Stream.empty() ? WideString() : L":" + parsed.Stream;
    return STATUS_SUCCESS;
}
}
