#include "hosted/machine/disk_access.h"

#include "hosted/fs/file_system.h"
#include "hosted/io/file_object.h"
#include "hosted/machine/program_state.h"
#include "hosted/ob/name_space.h"

#include <mutex>
#include <vector>

namespace hosted
{
namespace
{
constexpr ULONG DispositionShift = 24;

// An open file object whose requests go to the file system itself.
class DirectFile
{
public:
    DirectFile(Volume& volume, WideView name, ULONG access, ULONG disposition, ULONG options)
        : volume_(volume), file_(NewFileObject(volume.Disk, name, access, KernelMode))
    {
        CreateSecurity security{nullptr, nullptr, access, options};
        FileRequest create = NewFileRequest(file_, IRP_MJ_CREATE, IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API);
        auto& parameters = create.Parameters.Parameters.Create;
        parameters.SecurityContext = &security;
        parameters.Options = disposition << DispositionShift | options;
        parameters.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        file_->Flags |= FO_SYNCHRONOUS_IO;
        status_ = Send(create);
        opened_ = NT_SUCCESS(status_);
    }

    ~DirectFile()
    {
        if (opened_)
        {
            Send(IRP_MJ_CLEANUP);
            Send(IRP_MJ_CLOSE);
        }
        DereferenceObject(file_);
    }

    DirectFile(const DirectFile&) = delete;
    DirectFile& operator=(const DirectFile&) = delete;

    NTSTATUS Status() const { return status_; }

private:
    NTSTATUS Send(UCHAR majorFunction)
    {
        FileRequest request = NewFileRequest(file_, majorFunction, IRP_SYNCHRONOUS_API);
        return Send(request);
    }

    NTSTATUS Send(FileRequest& request)
    {
        IO_STATUS_BLOCK status{};
        return volume_.Files->Dispatch(request.Parameters, status);
    }

    Volume& volume_;
    PFILE_OBJECT file_;
    NTSTATUS status_ = STATUS_SUCCESS;
    bool opened_ = false;
};

NTSTATUS MakeFolders(Volume& volume, WideView path)
{
    for (size_t end = path.find(L'\\', 1); end != WideView::npos; end = path.find(L'\\', end + 1))
    {
        // An access that every share mode allows: programs may have the folder open, and others make it just now.
        const DirectFile folder(volume, path.substr(0, end), FILE_READ_ATTRIBUTES, FILE_OPEN_IF, FILE_DIRECTORY_FILE);
        if (!NT_SUCCESS(folder.Status()))
        {
            return folder.Status();
        }
    }
    return STATUS_SUCCESS;
}
}

Volume* FindVolume(WideView path, WideString* remainder)
{
    void* body = nullptr;
    if (!NT_SUCCESS(LookupObject(NtPath(path), &body, remainder)))
    {
        return nullptr;
    }
    Volume* volume = &TypeOf(body) == &DeviceType ? VolumeOf(static_cast<PDEVICE_OBJECT>(body)) : nullptr;
    DereferenceObject(body);
    return volume;
}

bool ReadDiskFile(WideView path, std::string* bytes)
{
    WideString name;
    Volume* volume = FindVolume(path, &name);
    return volume != nullptr && ReadDisk(*volume->Files, name, bytes);
}

NTSTATUS WriteDiskFile(WideView path, std::string_view bytes)
{
    WideString name;
    Volume* volume = FindVolume(path, &name);
    if (volume == nullptr)
    {
        return STATUS_NO_SUCH_DEVICE;
    }
    NTSTATUS status = MakeFolders(*volume, name);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    {
        // What an earlier program left in the cache goes with the old contents.
        const DirectFile file(*volume, name, FILE_ALL_ACCESS, FILE_OVERWRITE_IF, FILE_NON_DIRECTORY_FILE);
        status = file.Status();
    }
    return NT_SUCCESS(status) ? WriteDisk(*volume->Files, name, bytes) : status;
}

NTSTATUS MakeDiskFolder(WideView path)
{
    WideString name;
    Volume* volume = FindVolume(path, &name);
    return volume == nullptr ? STATUS_NO_SUCH_DEVICE : MakeFolders(*volume, name + L"\\");
}

void InstallImage(WideView path)
{
    // Programs of one image may start side by side: none finds it half made, none replaces it under another.
    static std::mutex installing;
    const std::lock_guard lock(installing);
    std::string bytes;
    if (!ReadDiskFile(path, &bytes))
    {
        WriteDiskFile(path, {});
    }
}
}
