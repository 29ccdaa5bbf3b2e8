#include "tests/unit/hosted/fs/volume_fixture.h"

#include "hosted/ke/system_time.h"

#include <cstring>

namespace hosted
{
namespace
{
class FileInformationTest : public VolumeTest
{
protected:
    ~FileInformationTest() override { ResetSystemTime(); }

    template <class Record>
    static Record Query(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind)
    {
        Record record;
        ULONG_PTR used = 0;
        EXPECT_EQ(QueryInformation(file, kind, &record, sizeof(record), &used), STATUS_SUCCESS);
        EXPECT_EQ(used, sizeof(record));
        return record;
    }

    static NTSTATUS SetDisposition(PFILE_OBJECT file, bool remove)
    {
        FILE_DISPOSITION_INFORMATION information{remove};
        return SetInformation(file, FileDispositionInformation, &information, sizeof(information));
    }

    static NTSTATUS Rename(PFILE_OBJECT file, WideView name, bool replace = false)
    {
        alignas(8) char buffer[600] = {};
        auto* information = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer);
        information->ReplaceIfExists = replace;
        information->FileNameLength = static_cast<ULONG>(name.size() * sizeof(WCHAR));
        std::memcpy(information->FileName, name.data(), information->FileNameLength);
        return SetInformation(file, FileRenameInformation, buffer, sizeof(buffer));
    }
};

TEST_F(FileInformationTest, TimesFollowTheClock)
{
    MakeFile(L"\\a", "x");
    const LONGLONG created = SystemTime();
    AdvanceSystemTime(1000);
    PFILE_OBJECT file = Open(L"\\a", {.Access = FILE_ALL_ACCESS});
    EXPECT_EQ(Query<FILE_BASIC_INFORMATION>(file, FileBasicInformation).LastWriteTime.QuadPart, created);
    Write(file, 0, "y");
    auto basic = Query<FILE_BASIC_INFORMATION>(file, FileBasicInformation);
    EXPECT_EQ(basic.CreationTime.QuadPart, created);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, created + 1000);
    EXPECT_EQ(basic.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));
    basic = {};
    basic.CreationTime.QuadPart = 5;
    basic.FileAttributes = FILE_ATTRIBUTE_READONLY;
    EXPECT_EQ(SetInformation(file, FileBasicInformation, &basic, sizeof(basic)), STATUS_SUCCESS);
    basic.FileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    EXPECT_EQ(SetInformation(file, FileBasicInformation, &basic, sizeof(basic)), STATUS_INVALID_PARAMETER);
    CloseFile(file);
    Remount();
    file = Open(L"\\a", {.Access = FILE_READ_DATA});
    basic = Query<FILE_BASIC_INFORMATION>(file, FileBasicInformation);
    EXPECT_EQ(basic.CreationTime.QuadPart, 5);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, created + 1000);
    EXPECT_EQ(basic.FileAttributes, ULONG(FILE_ATTRIBUTE_READONLY));
    CloseFile(file);
}

TEST_F(FileInformationTest, SizesNamesAndStreams)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\file", std::string(5000, 'x'));
    MakeFile(L"\\dir\\file:note", "1234567");
    PFILE_OBJECT file = Open(L"\\dir\\file");
    auto standard = Query<FILE_STANDARD_INFORMATION>(file, FileStandardInformation);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 5000);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 8192);
    EXPECT_EQ(standard.NumberOfLinks, 1u);
    EXPECT_FALSE(standard.Directory);
    EXPECT_FALSE(standard.DeletePending);

    struct
    {
        ULONG Length;
        WCHAR Name[30];
    } name;
    ULONG_PTR used = 0;
    EXPECT_EQ(QueryInformation(file, FileNameInformation, &name, sizeof(name), &used), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(WideView(name.Name, name.Length / 2)), "\\dir\\file");
    EXPECT_EQ(used, 4u + 18u);
    EXPECT_EQ(QueryInformation(file, FileNameInformation, &name, 10, &used), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(used, 10u);
    EXPECT_EQ(name.Length, 18u);
    EXPECT_EQ(QueryInformation(file, FileNameInformation, &name, 3, &used), STATUS_INFO_LENGTH_MISMATCH);

    alignas(8) char streams[200];
    EXPECT_EQ(QueryInformation(file, FileStreamInformation, streams, sizeof(streams), &used), STATUS_SUCCESS);
    const auto field = [&](size_t at)
    {
        ULONG value;
        std::memcpy(&value, streams + at, 4);
        return value;
    };
    EXPECT_EQ(field(0), 40u); // 24 bytes and "::$DATA", rounded up
    EXPECT_EQ(field(8), 5000u);
    EXPECT_EQ(field(40), 0u);
    EXPECT_EQ(field(48), 7u);
    EXPECT_EQ(Narrow(WideView(reinterpret_cast<WCHAR*>(streams + 64), field(44) / 2)), ":note:$DATA");
    EXPECT_EQ(QueryInformation(file, FileRenameInformation, streams, 8, &used), STATUS_INVALID_INFO_CLASS);
    CloseFile(file);
}

TEST_F(FileInformationTest, AllocationTakesDataAwayButAddsNone)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, std::string(5000, 'x'));
    FILE_ALLOCATION_INFORMATION allocation;
    allocation.AllocationSize.QuadPart = 100000;
    EXPECT_EQ(SetInformation(file, FileAllocationInformation, &allocation, 8), STATUS_SUCCESS);
    EXPECT_EQ(SizeOf(file), 5000);
    allocation.AllocationSize.QuadPart = 4096;
    EXPECT_EQ(SetInformation(file, FileAllocationInformation, &allocation, 8), STATUS_SUCCESS);
    EXPECT_EQ(SizeOf(file), 4096);
    EXPECT_EQ(SetEndOfFile(file, -1), STATUS_INVALID_PARAMETER);
    CloseFile(file);
    PFILE_OBJECT root = Open(L"\\", {.Access = FILE_WRITE_DATA});
    EXPECT_EQ(SetEndOfFile(root, 0), STATUS_INVALID_PARAMETER);
    CloseFile(root);
}

TEST_F(FileInformationTest, DeletionHappensWhenTheLastHandleGoes)
{
    PFILE_OBJECT first = Open(L"\\a");
    PFILE_OBJECT second = Open(L"\\a");
    Write(first, 0, "data");
    EXPECT_EQ(SetDisposition(first, true), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a"), STATUS_DELETE_PENDING);
    EXPECT_EQ(SetDisposition(second, false), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a"), STATUS_SUCCESS);
    EXPECT_EQ(SetDisposition(second, true), STATUS_SUCCESS);
    CloseFile(second);
    EXPECT_EQ(Read(first, 0, 10), "data");
    ReferenceObject(first);
    CloseFile(first);
    EXPECT_FALSE(IsOnDisk(L"\\a"));
    // A new file of that name has nothing to do with the old one, to which a reference is left.
    MakeFile(L"\\a", "new");
    EXPECT_EQ(SizeOf(first), 0);
    DereferenceObject(first);
    LazyWrite();
    EXPECT_EQ(OnDisk(L"\\a"), "new");
}

TEST_F(FileInformationTest, DeleteOnCloseAndWhatCannotGo)
{
    EXPECT_EQ(Attempt(L"\\a", {.Options = FILE_DELETE_ON_CLOSE}), STATUS_SUCCESS);
    EXPECT_FALSE(IsOnDisk(L"\\a"));
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\a");
    PFILE_OBJECT dir = Open(L"\\dir", {.Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(SetDisposition(dir, true), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(Attempt(L"\\dir\\a", {.Options = FILE_DELETE_ON_CLOSE}), STATUS_SUCCESS);
    EXPECT_EQ(SetDisposition(dir, true), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\dir\\b"), STATUS_DELETE_PENDING);
    CloseFile(dir);
    EXPECT_EQ(Attempt(L"\\dir", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_NOT_FOUND);
    PFILE_OBJECT root = Open(L"\\");
    EXPECT_EQ(SetDisposition(root, true), STATUS_CANNOT_DELETE);
    CloseFile(root);
    // A stream goes alone.
    MakeFile(L"\\b:note", "n");
    EXPECT_EQ(Attempt(L"\\b:note", {.Options = FILE_DELETE_ON_CLOSE}), STATUS_SUCCESS);
    EXPECT_TRUE(IsOnDisk(L"\\b"));
    EXPECT_FALSE(IsOnDisk(L"\\b:note"));
}

TEST_F(FileInformationTest, FilesMove)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\a", "data");
    MakeFile(L"\\a:note", "note");
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_EQ(Rename(file, L"A"), STATUS_SUCCESS);
    EXPECT_EQ(Rename(file, L"A longer name"), STATUS_SUCCESS);
    EXPECT_TRUE(IsOnDisk(L"\\ALONGE~1"));
    EXPECT_EQ(Rename(file, L"\\??\\X:\\dir\\b"), STATUS_SUCCESS);
    EXPECT_EQ(Rename(file, L"\\no\\b"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Rename(file, L"b?"), STATUS_OBJECT_NAME_INVALID);
    Write(file, 4, "!");
    CloseFile(file);
    LazyWrite();
    EXPECT_EQ(OnDisk(L"\\dir\\b"), "data!");
    EXPECT_EQ(OnDisk(L"\\dir\\b:note"), "note");
    EXPECT_FALSE(IsOnDisk(L"\\A longer name"));
    EXPECT_FALSE(IsOnDisk(L"\\ALONGE~1"));
}

TEST_F(FileInformationTest, RenamesReplaceOnlyWhenAskedAndFree)
{
    MakeFile(L"\\a", "new");
    MakeFile(L"\\b", "old");
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_EQ(Rename(file, L"b"), STATUS_OBJECT_NAME_COLLISION);
    PFILE_OBJECT other = Open(L"\\b");
    EXPECT_EQ(Rename(file, L"b", true), STATUS_ACCESS_DENIED);
    CloseFile(other);
    EXPECT_EQ(Rename(file, L"b", true), STATUS_SUCCESS);
    CloseFile(file);
    LazyWrite();
    EXPECT_EQ(OnDisk(L"\\b"), "new");
    EXPECT_FALSE(IsOnDisk(L"\\a"));
}

TEST_F(FileInformationTest, DirectoriesMoveWithWhatIsInThem)
{
    MakeDirectory(L"\\dir");
    MakeDirectory(L"\\dir\\sub");
    MakeFile(L"\\dir\\sub\\a", "data");
    PFILE_OBJECT dir = Open(L"\\dir", {.Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(Rename(dir, L"\\dir\\sub\\x"), STATUS_INVALID_PARAMETER);
    PFILE_OBJECT file = Open(L"\\dir\\sub\\a");
    EXPECT_EQ(Rename(dir, L"moved"), STATUS_ACCESS_DENIED);
    CloseFile(file);
    EXPECT_EQ(Rename(dir, L"moved"), STATUS_SUCCESS);
    CloseFile(dir);
    LazyWrite();
    EXPECT_EQ(OnDisk(L"\\moved\\sub\\a"), "data");
}

TEST_F(FileInformationTest, StreamsWithDirtyPagesOutliveTheirHandles)
{
    MakeFile(L"\\a", "data");
    EXPECT_GT(CachedBytes(), 0u);
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_EQ(Read(file, 0, 10), "data");
    CloseFile(file);
    EXPECT_EQ(OnDisk(L"\\a"), std::string(4, '\0'));
    LazyWrite();
    EXPECT_EQ(CachedBytes(), 0u);
    EXPECT_EQ(OnDisk(L"\\a"), "data");
    // A clean one goes with the last handle.
    file = Open(L"\\a");
    EXPECT_EQ(Read(file, 0, 10), "data");
    EXPECT_GT(CachedBytes(), 0u);
    CloseFile(file);
    EXPECT_EQ(CachedBytes(), 0u);
}

TEST_F(FileInformationTest, AVolumeFlushWritesEveryStream)
{
    MakeFile(L"\\a", "aaa");
    PFILE_OBJECT open = Open(L"\\b");
    Write(open, 0, "bbb");
    PFILE_OBJECT volume = Open(L"", {.Disposition = FILE_OPEN});
    EXPECT_EQ(FlushFile(volume), STATUS_SUCCESS);
    EXPECT_EQ(OnDisk(L"\\a"), "aaa");
    EXPECT_EQ(OnDisk(L"\\b"), "bbb");
    CloseFile(volume);
    CloseFile(open);
}
}
}
