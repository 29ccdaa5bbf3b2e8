#include "hosted/machine/disk_access.h"

#include "hosted/fs/file_system.h"
#include "hosted/io/file_object.h"
#include "hosted/machine/program_state.h"
#include "hosted/ob/name_space.h"

#include <vector>

namespace host
{
namespace
{
constexpr ULONG DispositionShift = 24;

// An open file object whose requests go to the file system itself.
class DirectFile
{
public:
    DirectFile(Volume& volume, WideView name, ULONG disposition, ULONG options)
        : volume_(volume), file_(NewFileObject(volume.Disk, name, FILE_ALL_ACCESS, KernelMode))
    {
        CreateSecurity security{nullptr, nullptr, FILE_ALL_ACCESS, options};
        FilterRequest create = NewFileRequest(file_, IRP_MJ_CREATE, IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API);
        auto& parameters = create.Parameters.Parameters.Create;
        parameters.SecurityContext = &security;
        parameters.Options = disposition << DispositionShift | options;
        parameters.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        file_->Flags |= FO_SYNCHRONOUS_IO;
        file_->Flags |= options & FILE_NO_INTERMEDIATE_BUFFERING ? FO_NO_INTERMEDIATE_BUFFERING : 0;
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

    NTSTATUS Write(std::string sectors)
    {
        FilterRequest write = NewFileRequest(file_, IRP_MJ_WRITE, IRP_NOCACHE | IRP_WRITE_OPERATION);
        write.Parameters.Parameters.Write.Length = static_cast<ULONG>(sectors.size());
        write.Parameters.Parameters.Write.WriteBuffer = sectors.data();
        return Send(write);
    }

    NTSTATUS SetEndOfFile(LONGLONG size)
    {
        FILE_END_OF_FILE_INFORMATION end{};
        end.EndOfFile.QuadPart = size;
        FilterRequest set = NewFileRequest(file_, IRP_MJ_SET_INFORMATION, IRP_SYNCHRONOUS_API);
        auto& parameters = set.Parameters.Parameters.SetFileInformation;
        parameters.Length = sizeof(end);
        parameters.FileInformationClass = FileEndOfFileInformation;
        parameters.InfoBuffer = &end;
        return Send(set);
    }

private:
    NTSTATUS Send(UCHAR majorFunction)
    {
        FilterRequest request = NewFileRequest(file_, majorFunction, IRP_SYNCHRONOUS_API);
        return Send(request);
    }

    NTSTATUS Send(FilterRequest& request)
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
        const DirectFile folder(volume, path.substr(0, end), FILE_OPEN_IF, FILE_DIRECTORY_FILE);
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
    DirectFile file(*volume, name, FILE_OVERWRITE_IF, FILE_NO_INTERMEDIATE_BUFFERING | FILE_NON_DIRECTORY_FILE);
    if (!NT_SUCCESS(file.Status()) || bytes.empty())
    {
        return file.Status();
    }
    std::string sectors(bytes);
    sectors.resize(ALIGN_UP_BY(sectors.size(), volume->SectorSize));
    status = file.Write(std::move(sectors));
    return NT_SUCCESS(status) && bytes.size() % volume->SectorSize != 0
               ? file.SetEndOfFile(static_cast<LONGLONG>(bytes.size()))
               : status;
}

NTSTATUS MakeDiskFolder(WideView path)
{
    WideString name;
    Volume* volume = FindVolume(path, &name);
    return volume == nullptr ? STATUS_NO_SUCH_DEVICE : MakeFolders(*volume, name + L"\\");
}

void InstallImage(WideView path)
{
    std::string bytes;
    if (!ReadDiskFile(path, &bytes))
    {
        WriteDiskFile(path, {});
    }
}
}
