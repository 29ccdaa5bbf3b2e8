#include "tests/unit/hosted/fs/volume_fixture.h"

namespace hosted
{
namespace
{
using FileCreate = VolumeTest;

TEST_F(FileCreate, EveryDispositionOnAMissingFile)
{
    ULONG_PTR information = 77;
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_OVERWRITE}), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\no\\a", {.Disposition = FILE_CREATE}), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\no\\a", {.Disposition = FILE_OPEN}), STATUS_OBJECT_PATH_NOT_FOUND);
    const std::pair<ULONG, WideView> creating[] = {
        {FILE_CREATE, L"\\1"}, {FILE_OPEN_IF, L"\\2"}, {FILE_OVERWRITE_IF, L"\\3"}, {FILE_SUPERSEDE, L"\\4"}};
    for (auto& [disposition, path] : creating)
    {
        EXPECT_EQ(Attempt(path, {.Disposition = disposition}, &information), STATUS_SUCCESS);
        EXPECT_EQ(information, ULONG_PTR(FILE_CREATED));
        EXPECT_EQ(OnDisk(path), "");
    }
}

TEST_F(FileCreate, EveryDispositionOnAnExistingFile)
{
    struct Case
    {
        ULONG Disposition;
        ULONG_PTR Information;
        const char* Left;
    };
    const Case cases[] = {{FILE_OPEN, FILE_OPENED, "text"}, {FILE_OPEN_IF, FILE_OPENED, "text"},
        {FILE_OVERWRITE, FILE_OVERWRITTEN, ""}, {FILE_OVERWRITE_IF, FILE_OVERWRITTEN, ""},
        {FILE_SUPERSEDE, FILE_SUPERSEDED, ""}};
    for (const Case& each : cases)
    {
        MakeFile(L"\\a", "text");
        ULONG_PTR information = 77;
        EXPECT_EQ(Attempt(L"\\A", {.Disposition = each.Disposition}, &information), STATUS_SUCCESS);
        EXPECT_EQ(information, each.Information);
        LazyWrite();
        EXPECT_EQ(OnDisk(L"\\a"), each.Left);
    }
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_CREATE}), STATUS_OBJECT_NAME_COLLISION);
}

TEST_F(FileCreate, DirectoriesAndFilesAreToldApart)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\file");
    EXPECT_EQ(Attempt(L"\\dir", {.Options = FILE_NON_DIRECTORY_FILE}), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\dir", {.Disposition = FILE_OVERWRITE_IF}), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\dir", {.Disposition = FILE_OPEN}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\dir\\", {.Disposition = FILE_OPEN}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\", {.Disposition = FILE_OPEN}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\file", {.Options = FILE_DIRECTORY_FILE}), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\file\\", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\file\\", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE}), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\file\\below"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(
        Attempt(L"\\dir", {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE}), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Attempt(L"\\dir\\sub\\", {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a*b"), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(FileCreate, NamesKeepTheirCaseAndIgnoreIt)
{
    MakeDirectory(L"\\Some Directory");
    MakeFile(L"\\Some Directory\\Plan.TXT", "plan");
    LazyWrite();
    EXPECT_EQ(OnDisk(L"\\some directory\\plan.txt"), "plan");
    EXPECT_EQ(OnDisk(L"\\SOMEDI~1\\PLAN.txt"), "plan");
    EXPECT_EQ(Attempt(L"\\SOMEDI~1\\plan.txt", {.Disposition = FILE_OPEN}), STATUS_SUCCESS);
}

TEST_F(FileCreate, RelativeOpensStartAtTheRelatedFile)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\file", "data");
    PFILE_OBJECT dir = OpenDirectory(L"\\dir");
    PFILE_OBJECT file = Open(L"file", {.Disposition = FILE_OPEN, .Root = dir});
    EXPECT_EQ(Read(file, 0, 10), "data");
    EXPECT_EQ(Attempt(L":note", {.Root = file}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"below", {.Root = file}), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\file", {.Root = dir}), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(IsOnDisk(L"\\dir\\file:note"));
    CloseFile(file);
    CloseFile(dir);
}

TEST_F(FileCreate, FilesOpenByTheirId)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\A long file name", "data");
    PFILE_OBJECT file = Open(L"\\dir\\A long file name");
    LARGE_INTEGER id;
    ASSERT_EQ(QueryInformation(file, FileInternalInformation, &id, sizeof(id), nullptr), STATUS_SUCCESS);
    CloseFile(file);
    OpenRequest request;
    request.Path = L"\\??\\X:\\";
    request.Options |= FILE_OPEN_BY_FILE_ID;
    request.FileId = static_cast<ULONGLONG>(id.QuadPart);
    ASSERT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
    EXPECT_EQ(Read(file, 0, 10), "data");
    WideString name;
    EXPECT_EQ(Files->NormalizedName(file, request.Options, &name), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(name), "\\dir\\A long file name");
    CloseFile(file);
    request.FileId += 1000;
    EXPECT_EQ(OpenFile(request, &file), STATUS_INVALID_PARAMETER);
}

TEST_F(FileCreate, SharingIsChecked)
{
    PFILE_OBJECT reader = Open(L"\\a", {.Access = FILE_READ_DATA, .Share = FILE_SHARE_READ});
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_WRITE_DATA}), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Attempt(L"\\a", {.Access = DELETE}), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_OVERWRITE, .Access = FILE_READ_DATA}), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_READ_DATA, .Share = FILE_SHARE_WRITE}), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_READ_DATA}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_READ_ATTRIBUTES, .Share = 0}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a:other", {.Access = FILE_WRITE_DATA, .Share = 0}), STATUS_SUCCESS);
    CloseFile(reader);
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_WRITE_DATA, .Share = 0}), STATUS_SUCCESS);
}

TEST_F(FileCreate, SharingEndsWithTheLastHandleNotTheLastReference)
{
    PFILE_OBJECT file = Open(L"\\a", {.Share = 0});
    ReferenceObject(file);
    EXPECT_EQ(Attempt(L"\\a"), STATUS_SHARING_VIOLATION);
    CloseFile(file);
    EXPECT_EQ(Attempt(L"\\a"), STATUS_SUCCESS);
    DereferenceObject(file);
}

TEST_F(FileCreate, ReadOnlyFilesAreNotWritten)
{
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_CREATE, .Attributes = FILE_ATTRIBUTE_READONLY}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_WRITE_DATA}), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_SUPERSEDE, .Access = FILE_READ_DATA}), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Attempt(L"\\a", {.Options = FILE_DELETE_ON_CLOSE, .Access = DELETE}), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Attempt(L"\\a", {.Access = FILE_READ_DATA}), STATUS_SUCCESS);
}

TEST_F(FileCreate, StreamsStandNextToEachOther)
{
    MakeFile(L"\\a:note", "noted");
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_OPEN}), STATUS_SUCCESS);
    MakeFile(L"\\a::$DATA", "data");
    LazyWrite();
    EXPECT_EQ(OnDisk(L"\\a"), "data");
    EXPECT_EQ(OnDisk(L"\\a:NOTE"), "noted");
    EXPECT_EQ(Attempt(L"\\a:none", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_NOT_FOUND);
    MakeDirectory(L"\\dir");
    EXPECT_EQ(Attempt(L"\\dir:note"), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\dir::$DATA"), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\a:note", {.Options = FILE_DIRECTORY_FILE}), STATUS_NOT_A_DIRECTORY);
    // New contents take the other streams with them.
    EXPECT_EQ(Attempt(L"\\a", {.Disposition = FILE_OVERWRITE}), STATUS_SUCCESS);
    EXPECT_FALSE(IsOnDisk(L"\\a:note"));
}

TEST_F(FileCreate, VolumesAndPagingFilesAreKnown)
{
    PFILE_OBJECT volume = Open(L"", {.Disposition = FILE_OPEN});
    EXPECT_TRUE(volume->Flags & FO_VOLUME_OPEN);
    EXPECT_FALSE(Files->IsDirectory(volume));
    IO_STATUS_BLOCK status;
    char byte = 0;
    EXPECT_EQ(WriteFile(volume, 0, &byte, 1, &status), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Attempt(L"", {.Disposition = FILE_OVERWRITE_IF}), STATUS_ACCESS_DENIED);
    PFILE_OBJECT paging = Open(L"\\pagefile.sys", {.StackFlags = SL_OPEN_PAGING_FILE});
    EXPECT_TRUE(Files->IsPagingFile(paging));
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_FALSE(Files->IsPagingFile(file));
    EXPECT_FALSE(Files->IsDirectory(file));
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_TRUE(Files->IsDirectory(root));
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    for (PFILE_OBJECT each : {volume, paging, file, root})
    {
        CloseFile(each);
    }
}

TEST_F(FileCreate, NormalizedNamesAreLongNames)
{
    MakeDirectory(L"\\Long directory");
    MakeFile(L"\\Long directory\\Long file.text");
    const auto name = [&](PFILE_OBJECT file)
    {
        WideString path;
        EXPECT_EQ(Files->NormalizedName(file, 0, &path), STATUS_SUCCESS);
        return Narrow(path);
    };
    PFILE_OBJECT file = Open(L"\\LONGDI~1\\LONGFI~1.TEX:n");
    EXPECT_EQ(name(file), "\\Long directory\\Long file.text:n");
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(name(root), "\\");
    // Before the open, as a filter asks.
    FILE_OBJECT opening = {};
    opening.FileName = Counted(L"\\longdi~1\\missing\\x:s:$DATA");
    EXPECT_EQ(name(&opening), "\\Long directory\\missing\\x:s");
    opening.FileName = Counted(L"longdi~1\\longfi~1.tex");
    opening.RelatedFileObject = root;
    EXPECT_EQ(name(&opening), "\\Long directory\\Long file.text");
    CloseFile(root);
    CloseFile(file);
}
}
}
