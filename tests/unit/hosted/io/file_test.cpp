#include "tests/unit/hosted/flt/filter_fixture.h"

#include "hosted/io/device_driver.h"
#include "hosted/ke/user_access.h"
#include "hosted/ob/name_space.h"

namespace flt_test
{
namespace
{
class IoFile : public VolumeTest
{
protected:
    NTSTATUS TryOpen(const OpenRequest& request)
    {
        PFILE_OBJECT file;
        const NTSTATUS status = OpenFile(request, &file);
        if (NT_SUCCESS(status))
        {
            CloseFile(file);
        }
        else
        {
            EXPECT_EQ(file, nullptr);
        }
        return status;
    }
    static OpenRequest Request(WideView path)
    {
        OpenRequest request;
        request.Path = WideString(path);
        return request;
    }

    char buffer_[512] = {};
    IO_STATUS_BLOCK status_{};
};

TEST_F(IoFile, CreateCarriesTheRequest)
{
    OpenRequest request = Request(L"\\??\\Q:\\Dir\\new.txt");
    request.DesiredAccess = GENERIC_READ | DELETE;
    request.ShareAccess = FILE_SHARE_READ;
    request.Disposition = FILE_OPEN_IF;
    request.Options =
        FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE | FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY;
    request.FileAttributes = FILE_ATTRIBUTE_READONLY;
    request.StackFlags = SL_OPEN_PAGING_FILE;
    request.FileObjectFlags = FO_MAILSLOT;
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction == IRP_MJ_CREATE)
        {
            EXPECT_EQ(operation.IrpFlags, static_cast<ULONG>(IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API));
            EXPECT_EQ(operation.OperationFlags, SL_OPEN_PAGING_FILE);
            const auto& create = operation.Parameters.Create;
            EXPECT_EQ(create.Options, FILE_OPEN_IF << 24 | request.Options);
            EXPECT_EQ(create.ShareAccess, FILE_SHARE_READ);
            EXPECT_EQ(create.FileAttributes, FILE_ATTRIBUTE_READONLY);
            const auto* security = static_cast<const CreateSecurity*>(create.SecurityContext);
            EXPECT_EQ(security->DesiredAccess, static_cast<ULONG>(DELETE | READ_CONTROL | SYNCHRONIZE | FILE_READ_DATA |
                                                                  FILE_READ_ATTRIBUTES | 0x0008));
            EXPECT_EQ(security->FullCreateOptions, request.Options);
            const PFILE_OBJECT file = operation.TargetFileObject;
            EXPECT_EQ(Narrow(View(file->FileName)), "\\Dir\\new.txt");
            EXPECT_EQ(file->RelatedFileObject, nullptr);
            EXPECT_EQ(file->DeviceObject, volume_->Disk);
            EXPECT_EQ(file->Vpb, volume_->Vpb);
            EXPECT_EQ(file->Type, 5);
        }
        const NTSTATUS result = files_->Default(operation, status);
        status.Information = FILE_CREATED;
        return result;
    };
    PFILE_OBJECT file;
    ULONG_PTR information = 0;
    ASSERT_EQ(OpenFile(request, &file, &information), STATUS_SUCCESS);
    EXPECT_EQ(information, static_cast<ULONG_PTR>(FILE_CREATED));
    EXPECT_EQ(file->Flags, static_cast<ULONG>(FO_SYNCHRONOUS_IO | FO_WRITE_THROUGH | FO_SEQUENTIAL_ONLY | FO_MAILSLOT));
    CloseFile(file);
    files_->Handler = nullptr;
    const PFILE_OBJECT direct = Open(L"\\??\\Q:\\x", FILE_NO_INTERMEDIATE_BUFFERING);
    EXPECT_EQ(direct->Flags, static_cast<ULONG>(FO_NO_INTERMEDIATE_BUFFERING));
    CloseFile(direct);
}

TEST_F(IoFile, CleanupComesWithTheLastHandleAndCloseWithTheLastReference)
{
    const PFILE_OBJECT file = Open();
    ReferenceObject(file);
    CloseFile(file);
    EXPECT_EQ(files_->Count(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(files_->Count(IRP_MJ_CLOSE), 0u);
    DereferenceObject(file);
    EXPECT_EQ(files_->Count(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(files_->Count(IRP_MJ_CLOSE), 1u);
}

TEST_F(IoFile, AReferenceThatNeverWasAHandleIsCleanedUpToo)
{
    DereferenceObject(Open());
    EXPECT_EQ(files_->Count(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(files_->Count(IRP_MJ_CLOSE), 1u);
}

TEST_F(IoFile, AFailedCreateIsNeitherCleanedUpNorClosed)
{
    files_->Handler = [](FLT_IO_PARAMETER_BLOCK&, IO_STATUS_BLOCK& status)
    { return status.Status = STATUS_SHARING_VIOLATION; };
    EXPECT_EQ(TryOpen(Request(L"\\??\\Q:\\x")), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files_->Seen.size(), 1u);
}

TEST_F(IoFile, RelativeOpensShowTheRelatedFileDuringTheCreateOnly)
{
    const PFILE_OBJECT root = Open(L"\\??\\Q:\\Dir");
    OpenRequest request = Request(L"below");
    request.Root = root;
    PFILE_OBJECT seen = nullptr;
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction == IRP_MJ_CREATE)
        {
            seen = operation.TargetFileObject->RelatedFileObject;
        }
        return files_->Default(operation, status);
    };
    PFILE_OBJECT file;
    ASSERT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
    EXPECT_EQ(seen, root);
    EXPECT_EQ(file->RelatedFileObject, nullptr);
    EXPECT_EQ(Narrow(View(file->FileName)), "below");
    CloseFile(file);
    CloseFile(root);
}

TEST_F(IoFile, ByFileIdTheNameIsTheId)
{
    OpenRequest request = Request(L"\\??\\Q:");
    request.Options |= FILE_OPEN_BY_FILE_ID;
    request.FileId = 0x0102030405060708;
    PFILE_OBJECT file;
    ASSERT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
    ASSERT_EQ(file->FileName.Length, 8);
    ULONGLONG id;
    std::memcpy(&id, file->FileName.Buffer, sizeof(id));
    EXPECT_EQ(id, request.FileId);
    EXPECT_FALSE(file->Flags & FO_VOLUME_OPEN);
    CloseFile(file);
}

TEST_F(IoFile, VolumeOpens)
{
    const PFILE_OBJECT volume = Open(L"\\??\\Q:");
    EXPECT_TRUE(volume->Flags & FO_VOLUME_OPEN);
    EXPECT_EQ(volume->FileName.Length, 0);
    CloseFile(volume);
    const PFILE_OBJECT root = Open(L"\\Device\\HarddiskVolume7\\");
    EXPECT_FALSE(root->Flags & FO_VOLUME_OPEN);
    EXPECT_EQ(Narrow(View(root->FileName)), "\\");
    CloseFile(root);
}

TEST_F(IoFile, RefusesOptionsThatContradict)
{
    const auto refused = [this](ACCESS_MASK access, ULONG disposition, ULONG options)
    {
        OpenRequest request = Request(L"\\??\\Q:\\x");
        request.DesiredAccess = access;
        request.Disposition = disposition;
        request.Options = options;
        return TryOpen(request) == STATUS_INVALID_PARAMETER;
    };
    EXPECT_TRUE(refused(FILE_LIST_DIRECTORY, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT)) << "cannot wait";
    EXPECT_FALSE(refused(GENERIC_READ, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT));
    EXPECT_TRUE(refused(SYNCHRONIZE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_SYNCHRONOUS_IO_ALERT));
    EXPECT_TRUE(refused(FILE_READ_DATA, FILE_OPEN, FILE_DELETE_ON_CLOSE));
    EXPECT_FALSE(refused(DELETE, FILE_OPEN, FILE_DELETE_ON_CLOSE));
    EXPECT_TRUE(refused(FILE_READ_DATA, FILE_OPEN, FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE));
    EXPECT_TRUE(refused(FILE_READ_DATA, FILE_OVERWRITE, FILE_DIRECTORY_FILE));
    EXPECT_FALSE(refused(FILE_READ_DATA, FILE_CREATE, FILE_DIRECTORY_FILE));
    EXPECT_TRUE(refused(FILE_READ_DATA, FILE_OVERWRITE_IF + 1, 0));
    EXPECT_TRUE(refused(FILE_READ_DATA, FILE_OPEN, 0x01000000));
}

TEST_F(IoFile, NamesThatLeadNowhere)
{
    EXPECT_FALSE(NT_SUCCESS(TryOpen(Request(L"\\??\\Y:\\x"))));
    EXPECT_FALSE(NT_SUCCESS(TryOpen(Request(L"no path"))));
    EXPECT_EQ(files_->Seen.size(), 0u);
}

TEST_F(IoFile, OnlyWhatWasGranted)
{
    OpenRequest request = Request(L"\\??\\Q:\\x");
    request.DesiredAccess = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    PFILE_OBJECT file;
    ASSERT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
    files_->Seen.clear();
    EXPECT_EQ(ReadFile(file, 0, buffer_, 1, &status_), STATUS_ACCESS_DENIED);
    EXPECT_EQ(status_.Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(WriteFile(file, 0, buffer_, 1, &status_), STATUS_ACCESS_DENIED);
    EXPECT_EQ(SetEndOfFile(file, 1), STATUS_ACCESS_DENIED);
    FILE_DISPOSITION_INFORMATION gone{TRUE};
    EXPECT_EQ(SetInformation(file, FileDispositionInformation, &gone, sizeof(gone)), STATUS_ACCESS_DENIED);
    FILE_BASIC_INFORMATION basic{};
    EXPECT_EQ(SetInformation(file, FileBasicInformation, &basic, sizeof(basic)), STATUS_ACCESS_DENIED);
    EXPECT_EQ(QueryDirectory(file, FileBothDirectoryInformation, true, true, {}, buffer_, 100, nullptr),
        STATUS_ACCESS_DENIED);
    EXPECT_EQ(FlushFile(file), STATUS_ACCESS_DENIED);
    EXPECT_EQ(files_->Seen.size(), 0u);
    CloseFile(file);

    request.DesiredAccess = FILE_APPEND_DATA | SYNCHRONIZE;
    ASSERT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
    EXPECT_EQ(WriteFile(file, 7, buffer_, 1, &status_), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().Parameters.Write.ByteOffset.QuadPart, -1) << "may only append";
    CloseFile(file);
}

TEST_F(IoFile, OffsetsAndSectors)
{
    const PFILE_OBJECT file = Open();
    EXPECT_EQ(ReadFile(file, -1, buffer_, 1, &status_), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(WriteFile(file, -2, buffer_, 1, &status_), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(WriteFile(file, -1, buffer_, 1, &status_), STATUS_SUCCESS);
    EXPECT_EQ(ReadFile(file, 3, buffer_, 5, &status_), STATUS_SUCCESS);
    CloseFile(file);
    const PFILE_OBJECT direct = Open(L"\\??\\Q:\\x", FILE_NO_INTERMEDIATE_BUFFERING);
    EXPECT_EQ(ReadFile(direct, 0, buffer_, 100, &status_), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ReadFile(direct, 100, buffer_, 512, &status_), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ReadFile(direct, 512, buffer_, 512, &status_), STATUS_SUCCESS);
    CloseFile(direct);
    const MountedFake bytes = Mount(L"\\Device\\HarddiskVolume8", L"R:", FILE_DEVICE_DISK_FILE_SYSTEM, 1);
    const PFILE_OBJECT byByte = Open(L"\\??\\R:\\x", FILE_NO_INTERMEDIATE_BUFFERING);
    EXPECT_EQ(WriteFile(byByte, 1, buffer_, 100, &status_), STATUS_SUCCESS);
    CloseFile(byByte);
    DismountVolume(bytes.Mounted);
}

TEST_F(IoFile, PagingIoCarriesLockedPages)
{
    alignas(PAGE_SIZE) static char pages[2 * PAGE_SIZE];
    const PFILE_OBJECT file = Open();
    bool seen = false;
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction == IRP_MJ_READ || operation.MajorFunction == IRP_MJ_WRITE)
        {
            seen = true;
            EXPECT_EQ(operation.IrpFlags, static_cast<ULONG>(IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO));
            const PMDL mdl = operation.Parameters.Read.MdlAddress;
            EXPECT_TRUE(IsLiveMdl(mdl));
            EXPECT_TRUE(mdl->MdlFlags & MDL_PAGES_LOCKED);
            EXPECT_FALSE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
            EXPECT_EQ(!!(mdl->MdlFlags & MDL_IO_PAGE_READ), operation.MajorFunction == IRP_MJ_READ);
            EXPECT_EQ(MdlSystemAddress(mdl), pages);
            EXPECT_EQ(mdl->ByteCount, sizeof(pages));
            EXPECT_EQ(operation.Parameters.Read.Length, sizeof(pages));
            EXPECT_EQ(operation.Parameters.Read.ByteOffset.QuadPart, 3 * PAGE_SIZE);
        }
        return files_->Default(operation, status);
    };
    EXPECT_EQ(PagingRead(file, 3 * PAGE_SIZE, pages, sizeof(pages), &status_), STATUS_SUCCESS);
    EXPECT_TRUE(seen);
    EXPECT_EQ(status_.Information, sizeof(pages));
    seen = false;
    EXPECT_EQ(PagingWrite(file, 3 * PAGE_SIZE, pages, sizeof(pages), &status_), STATUS_SUCCESS);
    EXPECT_TRUE(seen);
    EXPECT_EQ(DescribeLiveMdls(), "");
    EXPECT_DEATH(PagingRead(file, 1, pages, PAGE_SIZE, &status_), "PAGING_IO_ALIGNMENT");
    EXPECT_DEATH(PagingRead(file, 0, pages + 1, PAGE_SIZE, &status_), "PAGING_IO_ALIGNMENT");
    EXPECT_DEATH(PagingRead(file, 0, pages, 100, &status_), "PAGING_IO_ALIGNMENT");
    CloseFile(file);
}

TEST_F(IoFile, InformationTravelsThroughASystemBuffer)
{
    const PFILE_OBJECT file = Open();
    LONGLONG set = 0;
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction == IRP_MJ_SET_INFORMATION)
        {
            const auto& parameters = operation.Parameters.SetFileInformation;
            EXPECT_EQ(parameters.FileInformationClass, FileEndOfFileInformation);
            EXPECT_EQ(parameters.Length, sizeof(FILE_END_OF_FILE_INFORMATION));
            set = static_cast<FILE_END_OF_FILE_INFORMATION*>(parameters.InfoBuffer)->EndOfFile.QuadPart;
            EXPECT_FALSE(IsUserAddress(parameters.InfoBuffer));
        }
        if (operation.MajorFunction == IRP_MJ_QUERY_INFORMATION)
        {
            const auto& parameters = operation.Parameters.QueryFileInformation;
            EXPECT_FALSE(IsUserAddress(parameters.InfoBuffer));
            std::memset(parameters.InfoBuffer, 'x', parameters.Length);
            status = {{STATUS_BUFFER_OVERFLOW}, 4};
            return STATUS_BUFFER_OVERFLOW;
        }
        return files_->Default(operation, status);
    };
    UserRegion user(PAGE_SIZE);
    const LONGLONG end = 1234;
    std::memcpy(user.Base(), &end, sizeof(end));
    EXPECT_EQ(SetInformation(file, FileEndOfFileInformation, user.Base(), sizeof(end)), STATUS_SUCCESS);
    EXPECT_EQ(set, end);
    EXPECT_EQ(SetInformation(file, FileEndOfFileInformation, user.Base(), 4), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(SetEndOfFile(file, 99), STATUS_SUCCESS);
    EXPECT_EQ(set, 99);

    ULONG_PTR used = 0;
    EXPECT_EQ(QueryInformation(file, FileNameInformation, user.Base(), 8, &used), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(used, 4u);
    EXPECT_EQ(std::memcmp(user.Base(), "xxxx", 4), 0);
    EXPECT_NE(user.Base()[4], 'x') << "only what counts is copied";

    user.Protect(false, false);
    set = 0;
    EXPECT_EQ(SetInformation(file, FileEndOfFileInformation, user.Base(), sizeof(end)), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(set, 0);
    EXPECT_EQ(QueryInformation(file, FileNameInformation, user.Base(), 8, &used), STATUS_ACCESS_VIOLATION);
    files_->Handler = nullptr;
    CloseFile(file);
}

TEST_F(IoFile, RenameTellsWhetherItReplaces)
{
    const PFILE_OBJECT file = Open();
    struct
    {
        FILE_RENAME_INFORMATION Information;
        WCHAR Rest[8];
    } rename{};
    rename.Information.ReplaceIfExists = TRUE;
    EXPECT_EQ(SetInformation(file, FileRenameInformation, &rename, sizeof(rename)), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().Parameters.SetFileInformation.ReplaceIfExists, TRUE);
    CloseFile(file);
}

TEST_F(IoFile, DirectoryQueries)
{
    const PFILE_OBJECT file = Open();
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction != IRP_MJ_DIRECTORY_CONTROL)
        {
            return files_->Default(operation, status);
        }
        EXPECT_EQ(operation.MinorFunction, IRP_MN_QUERY_DIRECTORY);
        EXPECT_EQ(operation.OperationFlags, DirectoryRestartScan | DirectorySingleEntry);
        EXPECT_EQ(Narrow(View(*operation.Parameters.QueryDirectory.FileName)), "*.txt");
        EXPECT_EQ(operation.Parameters.QueryDirectory.DirectoryBuffer, buffer_);
        status = {{STATUS_SUCCESS}, 42};
        return STATUS_SUCCESS;
    };
    ULONG_PTR used = 0;
    EXPECT_EQ(
        QueryDirectory(file, FileBothDirectoryInformation, true, true, L"*.txt", buffer_, 512, &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 42u);
    files_->Handler = nullptr;
    EXPECT_EQ(
        QueryDirectory(file, FileBothDirectoryInformation, false, false, {}, buffer_, 512, &used), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().Parameters.QueryDirectory.FileName, nullptr);
    EXPECT_EQ(files_->Last().OperationFlags, 0);
    CloseFile(file);
}

// A driver that completes everything and remembers what it was asked.
std::vector<UCHAR> asked;

NTSTATUS NTAPI CompleteAll(PDEVICE_OBJECT, PIRP irp)
{
    asked.push_back(IoGetCurrentIrpStackLocation(irp)->MajorFunction);
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI MakeDevice(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\FileTest");
    PDEVICE_OBJECT device;
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    driver->MajorFunction[IRP_MJ_CREATE] = CompleteAll;
    driver->MajorFunction[IRP_MJ_CLEANUP] = CompleteAll;
    driver->MajorFunction[IRP_MJ_CLOSE] = CompleteAll;
    return status;
}

TEST_F(IoFile, DevicesWithoutVolumeAreOpenedThemselves)
{
    asked.clear();
    const PDRIVER_OBJECT driver = CreateDriverObject(L"\\Driver\\FileTest");
    ASSERT_EQ(StartDriver(driver, MakeDevice, L"\\Registry\\Machine\\FileTest"), STATUS_SUCCESS);
    const PFILE_OBJECT file = Open(L"\\Device\\FileTest\\below");
    EXPECT_EQ(Narrow(View(file->FileName)), "\\below");
    EXPECT_FALSE(file->Flags & FO_VOLUME_OPEN);
    EXPECT_EQ(file->DeviceObject, driver->DeviceObject);
    EXPECT_FALSE(FsRtlIsPagingFile(file));
    EXPECT_EQ(ReadFile(file, 0, buffer_, 1, &status_), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(SetEndOfFile(file, 0), STATUS_INVALID_DEVICE_REQUEST);
    CloseFile(file);
    EXPECT_EQ(asked, (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    IoDeleteDevice(driver->DeviceObject);
    DereferenceObject(driver);
    EXPECT_EQ(files_->Seen.size(), 0u);
}
}
}
