// What programs learn of files and directories of a folder.
#include "tests/unit/hosted/fs/folder/folder_fixture.h"

#include "hosted/ke/system_time.h"

#include <fcntl.h>

namespace hosted
{
namespace
{
using FolderQuery = FolderVolume;

constexpr time_t InitialSeconds = 1704067200; // 2024-01-01 00:00:00 UTC

TEST_F(FolderQuery, SizesAndTimesAreThoseOfTheStreamAndNotOfTheDisk)
{
    ResetSystemTime();
    PFILE_OBJECT file = Open(L"\\file");
    AdvanceSystemTime(50000000);
    Write(file, 0, std::string(10001, 'x'));
    struct stat info = StatOf(file);
    EXPECT_EQ(info.st_size, 10001);
    EXPECT_GE(info.st_blocks * 512, 10001);
    EXPECT_EQ(info.st_mtim.tv_sec, InitialSeconds + 5);
    EXPECT_EQ(std::filesystem::file_size(Folder / "file"), 0u) << "nothing was written out";
    FILE_STANDARD_INFORMATION standard = {};
    EXPECT_EQ(QueryInformation(file, FileStandardInformation, &standard, sizeof(standard), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 10001);
    FILE_BASIC_INFORMATION basic = {};
    EXPECT_EQ(QueryInformation(file, FileBasicInformation, &basic, sizeof(basic), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, InitialSystemTime + 50000000);
    EXPECT_EQ(basic.FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_ARCHIVE));
    AdvanceSystemTime(50000000);
    LazyWrite();
    info = StatOf(file);
    EXPECT_EQ(info.st_mtim.tv_sec, InitialSeconds + 5) << "when the program wrote, not when the cache did";
    CloseFile(file);
    ASSERT_EQ(stat((Folder / "file").c_str(), &info), 0);
    EXPECT_EQ(info.st_mtim.tv_sec, InitialSeconds + 5);
    EXPECT_EQ(info.st_size, 10001);
}

TEST_F(FolderQuery, TimesThatAreSetOutliveWhatTheCacheStillWrites)
{
    PFILE_OBJECT file = Open(L"\\file", {.Access = FILE_READ_DATA | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES});
    Write(file, 0, "text");
    const timespec times[2] = {{111, 222}, {333, 444}};
    EXPECT_EQ(FolderSetTimes(file, times), 0);
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    struct stat info = StatOf(file);
    EXPECT_EQ(info.st_mtim.tv_sec, 333);
    EXPECT_EQ(info.st_mtim.tv_nsec, 444);
    EXPECT_EQ(info.st_atim.tv_nsec, 222);
    FILE_BASIC_INFORMATION basic = {};
    basic.LastWriteTime.QuadPart = InitialSystemTime;
    EXPECT_EQ(SetInformation(file, FileBasicInformation, &basic, sizeof(basic)), STATUS_SUCCESS);
    info = StatOf(file);
    EXPECT_EQ(info.st_mtim.tv_sec, InitialSeconds);
    EXPECT_EQ(info.st_atim.tv_sec, 111) << "zero leaves it";
    basic.FileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    EXPECT_EQ(SetInformation(file, FileBasicInformation, &basic, sizeof(basic)), STATUS_INVALID_PARAMETER);
    CloseFile(file);
    ASSERT_EQ(stat((Folder / "file").c_str(), &info), 0);
    EXPECT_EQ(info.st_mtim.tv_sec, InitialSeconds);
    MakeDirectory(L"\\dir");
    PFILE_OBJECT directory = OpenDirectory(L"\\dir");
    EXPECT_EQ(FolderSetTimes(directory, times), 0);
    EXPECT_EQ(StatOf(directory).st_mtim.tv_sec, 333);
    EXPECT_TRUE(Files->IsDirectory(directory));
    CloseFile(directory);
}

TEST_F(FolderQuery, TheDescriptorIsTheObjectItself)
{
    MakeFile(L"\\file", "x");
    PFILE_OBJECT file = Open(L"\\file", {.Disposition = FILE_OPEN, .Access = FILE_READ_ATTRIBUTES});
    const std::string path = "/proc/self/fd/" + std::to_string(FolderDescriptor(file));
    EXPECT_EQ(chmod(path.c_str(), 0604), 0);
    EXPECT_EQ(StatOf(file).st_mode, static_cast<mode_t>(S_IFREG | 0604));
    ULONGLONG id = 0;
    EXPECT_EQ(QueryInformation(file, FileInternalInformation, &id, sizeof(id), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(id, StatOf(file).st_ino);
    CloseFile(file);
}

TEST_F(FolderQuery, DirectoriesAreListedWithWhatOpenFilesHave)
{
    MakeDirectory(L"\\dir");
    MakeDirectory(L"\\dir\\sub");
    MakeFile(L"\\dir\\One.txt", "1");
    PFILE_OBJECT open = Open(L"\\dir\\two.txt");
    Write(open, 0, "not on disk yet");
    OnLinux.Put("dir/10:30", "x");
    OnLinux.Put("dir/\xff\xfe", "no UTF-8");
    EXPECT_EQ(List(L"\\dir"), (std::vector<std::string>{".", "..",
                                  "10\xef\x80\xba"
                                  "30",
                                  "One.txt", "sub", "two.txt"}));
    EXPECT_EQ(List(L"\\dir", L"*.TXT"), (std::vector<std::string>{"One.txt", "two.txt"}));
    EXPECT_EQ(List(L"\\dir", L"*.doc"), std::vector<std::string>());
    EXPECT_EQ(List(L"\\dir", {}, 160).size(), 6u) << "in several steps";
    EXPECT_EQ(List(L"\\"), std::vector<std::string>{"dir"}) << "the root has neither . nor ..";

    PFILE_OBJECT directory = OpenDirectory(L"\\dir");
    ULONGLONG buffer[64];
    EXPECT_EQ(QueryDirectory(
                  directory, FileBothDirectoryInformation, true, true, L"two.txt", buffer, sizeof(buffer), nullptr),
        STATUS_SUCCESS);
    FILE_BOTH_DIR_INFORMATION entry;
    std::memcpy(static_cast<void*>(&entry), buffer, FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName));
    EXPECT_EQ(entry.EndOfFile.QuadPart, 15);
    EXPECT_EQ(entry.ShortNameLength, 0);
    EXPECT_EQ(
        QueryDirectory(directory, FileBothDirectoryInformation, true, false, L"", buffer, sizeof(buffer), nullptr),
        STATUS_NO_MORE_FILES);
    EXPECT_EQ(QueryDirectory(directory, FileNamesInformation, true, true, L"none", buffer, sizeof(buffer), nullptr),
        STATUS_NO_MORE_FILES);
    // A restart sees what came since.
    OnLinux.Put("dir/none", "now");
    EXPECT_EQ(QueryDirectory(directory, FileNamesInformation, true, true, L"none", buffer, sizeof(buffer), nullptr),
        STATUS_SUCCESS);
    CloseFile(directory);
    CloseFile(open);
}

TEST_F(FolderQuery, ANameIsFoundInItsOwnCaseFirst)
{
    for (const char* name : {"PLAN", "Plan", "plan"})
    {
        OnLinux.Put(name, "x");
    }
    EXPECT_EQ(List(L"\\", L"Plan"), std::vector<std::string>{"Plan"});
    EXPECT_EQ(List(L"\\", L"pLAN"), (std::vector<std::string>{"PLAN", "Plan", "plan"}));
    EXPECT_EQ(List(L"\\", L"pl?n").size(), 3u);
}

TEST_F(FolderQuery, ADirectoryThatIsGoingListsNothing)
{
    MakeDirectory(L"\\dir");
    PFILE_OBJECT directory = Open(
        L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE, .Access = FILE_LIST_DIRECTORY | DELETE});
    EXPECT_EQ(PosixDelete(directory), STATUS_SUCCESS);
    char buffer[500];
    EXPECT_EQ(QueryDirectory(directory, FileNamesInformation, true, true, L"", buffer, sizeof(buffer), nullptr),
        STATUS_DELETE_PENDING);
    CloseFile(directory);
}

TEST_F(FolderQuery, StreamsAreOneForAFileAndNoneForADirectory)
{
    MakeFile(L"\\file", "four");
    ULONGLONG buffer[16];
    ULONG_PTR used = 0;
    PFILE_OBJECT file = Open(L"\\file", {.Disposition = FILE_OPEN});
    EXPECT_EQ(QueryInformation(file, FileStreamInformation, buffer, sizeof(buffer), &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 24 + 7 * sizeof(WCHAR));
    EXPECT_EQ(buffer[1], 4u);
    CloseFile(file);
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(QueryInformation(root, FileStreamInformation, buffer, sizeof(buffer), &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(FlushFile(root), STATUS_ACCESS_DENIED);
    CloseFile(root);
    root = Open(L"\\", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(FlushFile(root), STATUS_SUCCESS);
    CloseFile(root);
}

TEST_F(FolderQuery, TheJournalIsNobodysBusiness)
{
    std::filesystem::create_directory(Folder / ".tarnveil-journal");
    std::filesystem::create_directory(Folder / "dir");
    std::filesystem::create_directory(Folder / "dir/.tarnveil-journal");
    EXPECT_EQ(List(L"\\"), std::vector<std::string>{"dir"});
    EXPECT_EQ(Attempt(L"\\.tarnveil-journal", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\.tarnveil-journal\\x", {.Disposition = FILE_OPEN}), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\.tarnveil-journal"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Attempt(L"\\dir\\.tarnveil-journal", {.Disposition = FILE_OPEN}), STATUS_SUCCESS)
        << "an ordinary name there";
    MakeFile(L"\\file", "x");
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(PosixRename(file, L".tarnveil-journal"), STATUS_ACCESS_DENIED);
    CloseFile(file);
}
}
}
