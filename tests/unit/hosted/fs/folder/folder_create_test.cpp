#include "tests/unit/hosted/fs/folder/folder_fixture.h"

#include "hosted/ke/bug_check.h"

#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
namespace
{
using FolderCreate = FolderVolume;

TEST_F(FolderCreate, FilesAndDirectoriesAreThoseOfTheFolder)
{
    OnLinux.Put("old.txt", "found");
    std::filesystem::create_directory(Folder / "dir");
    OnLinux.Put("dir/inner.txt", "deep");
    PFILE_OBJECT file = Open(L"\\dir\\inner.txt", {.Disposition = FILE_OPEN});
    EXPECT_EQ(Read(file, 0, 100), "deep");
    EXPECT_EQ(SizeOf(file), 4);
    CloseFile(file);
    MakeDirectory(L"\\dir\\new");
    MakeFile(L"\\dir\\new\\a.txt", "made here");
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("dir/new/a.txt"), "made here");
    EXPECT_EQ(OnDisk(L"\\dir\\new\\a.txt"), "made here");
    EXPECT_FALSE(IsOnDisk(L"\\dir"));
    // What comes from outside is there at the next open.
    OnLinux.Put("later.txt", "later");
    EXPECT_EQ(Attempt(L"\\later.txt", {.Disposition = FILE_OPEN}), STATUS_SUCCESS);
}

TEST_F(FolderCreate, DispositionsSayWhatBecameOfTheFile)
{
    struct
    {
        ULONG Disposition;
        NTSTATUS Missing;
        ULONG_PTR MissingInformation;
        NTSTATUS Present;
        ULONG_PTR PresentInformation;
        bool Emptied;
    } const cases[] = {
        {FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, 0, STATUS_SUCCESS, FILE_OPENED, false},
        {FILE_CREATE, STATUS_SUCCESS, FILE_CREATED, STATUS_OBJECT_NAME_COLLISION, 0, false},
        {FILE_OPEN_IF, STATUS_SUCCESS, FILE_CREATED, STATUS_SUCCESS, FILE_OPENED, false},
        {FILE_OVERWRITE, STATUS_OBJECT_NAME_NOT_FOUND, 0, STATUS_SUCCESS, FILE_OVERWRITTEN, true},
        {FILE_OVERWRITE_IF, STATUS_SUCCESS, FILE_CREATED, STATUS_SUCCESS, FILE_OVERWRITTEN, true},
        {FILE_SUPERSEDE, STATUS_SUCCESS, FILE_CREATED, STATUS_SUCCESS, FILE_SUPERSEDED, true},
    };
    for (const auto& each : cases)
    {
        std::filesystem::remove(Folder / "file");
        ULONG_PTR information = 0;
        EXPECT_EQ(Attempt(L"\\file", {.Disposition = each.Disposition}, &information), each.Missing)
            << each.Disposition;
        EXPECT_EQ(information, each.MissingInformation) << each.Disposition;
        EXPECT_EQ(Exists("file"), NT_SUCCESS(each.Missing));
        OnLinux.Put("file", "some text");
        information = 0;
        EXPECT_EQ(Attempt(L"\\file", {.Disposition = each.Disposition}, &information), each.Present)
            << each.Disposition;
        EXPECT_EQ(information, each.PresentInformation) << each.Disposition;
        LazyWrite();
        EXPECT_EQ(OnLinux.Get("file"), each.Emptied ? "" : "some text");
    }
}

TEST_F(FolderCreate, WrongPathsFailAsTheyDoElsewhere)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\file", "x");
    const OpenHow open = {.Disposition = FILE_OPEN};
    EXPECT_EQ(Attempt(L"\\none\\file", open), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\none\\file"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\file\\below", open), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\dir\\none", open), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\FILE", open), STATUS_OBJECT_NAME_NOT_FOUND) << "case counts";
    EXPECT_EQ(Attempt(L"\\file:stream", open), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\file::$DATA", open), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\dir\\..\\file", open), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\a.", {}), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\file\\", open), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\new\\"), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(
        Attempt(L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_NON_DIRECTORY_FILE}), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\dir", {.Disposition = FILE_OVERWRITE}), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\file", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE}), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Attempt(L"\\", {.Disposition = FILE_OPEN, .Options = FILE_DELETE_ON_CLOSE}), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Attempt(WideString(L"\\") + WideString(300, L'a')), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(
        Attempt(L"\\dir", {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE}), STATUS_OBJECT_NAME_COLLISION);
}

TEST_F(FolderCreate, NamesThatNoWindowsProgramCouldHoldAreReached)
{
    OnLinux.Put("10:30 \"notes\"?.", "colon");
    PFILE_OBJECT file = Open(L"\\10\xf03a"
                             L"30 \xf022notes\xf022\xf03f\xf02e",
        {.Disposition = FILE_OPEN});
    EXPECT_EQ(Read(file, 0, 10), "colon");
    CloseFile(file);
    MakeFile(L"\\a\xf03a"
             L"b",
        "made");
    EXPECT_TRUE(Exists("a:b"));
}

TEST_F(FolderCreate, RelativeNamesGoOnFromAnOpenDirectory)
{
    MakeDirectory(L"\\dir");
    MakeDirectory(L"\\dir\\sub");
    PFILE_OBJECT directory = OpenDirectory(L"\\dir");
    PFILE_OBJECT file = Open(L"sub\\plan.txt", {.Root = directory});
    EXPECT_EQ(NormalName(file), WideString(L"\\dir\\sub\\plan.txt"));
    CloseFile(file);
    EXPECT_TRUE(Exists("dir/sub/plan.txt"));
    PFILE_OBJECT again = Open(L"", {.Disposition = FILE_OPEN, .Access = FILE_LIST_DIRECTORY, .Root = directory});
    EXPECT_EQ(again->FsContext, directory->FsContext);
    CloseFile(again);
    CloseFile(directory);
    PFILE_OBJECT volume = Open(L"", {.Disposition = FILE_OPEN});
    EXPECT_TRUE(volume->Flags & FO_VOLUME_OPEN);
    file = Open(L"\\dir\\sub\\plan.txt", {.Disposition = FILE_OPEN, .Root = volume});
    CloseFile(file);
    EXPECT_EQ(FlushFile(volume), STATUS_SUCCESS);
    CloseFile(volume);
}

TEST_F(FolderCreate, SharingIsEnforced)
{
    MakeFile(L"\\file", "x");
    PFILE_OBJECT file = Open(L"\\file", {.Share = FILE_SHARE_READ});
    EXPECT_EQ(Attempt(L"\\file", {.Access = FILE_READ_DATA}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\file", {.Access = FILE_WRITE_DATA}), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(
        Attempt(L"\\file", {.Disposition = FILE_OVERWRITE, .Access = FILE_READ_ATTRIBUTES}), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Attempt(L"\\file", {.Access = FILE_READ_ATTRIBUTES}), STATUS_SUCCESS);
    CloseFile(file);
}

TEST_F(FolderCreate, WhatTheCreatorSaysBecomesOfTheLinuxFile)
{
    const auto make = [&](WideView path, FolderCreation creation, ULONG options)
    {
        return Open(path, {.Disposition = FILE_CREATE,
                              .Options = options | FILE_OPEN_REPARSE_POINT,
                              .Access = FILE_READ_ATTRIBUTES,
                              .Ea = &creation,
                              .EaLength = sizeof(creation)});
    };
    const mode_t mask = umask(077);
    PFILE_OBJECT file = make(L"\\script", {.Mode = 04755}, 0);
    EXPECT_EQ(StatOf(file).st_mode, static_cast<mode_t>(S_IFREG | 04755)) << "whatever the process masks";
    CloseFile(file);
    file = make(L"\\dir", {.Mode = 0750}, FILE_DIRECTORY_FILE);
    EXPECT_EQ(StatOf(file).st_mode, static_cast<mode_t>(S_IFDIR | 0750));
    CloseFile(file);
    file = make(L"\\fifo", {.Mode = S_IFIFO | 0640}, 0);
    EXPECT_EQ(StatOf(file).st_mode, static_cast<mode_t>(S_IFIFO | 0640));
    CloseFile(file);
    file = make(L"\\link", {.LinkTarget = "script"}, 0);
    EXPECT_TRUE(S_ISLNK(StatOf(file).st_mode));
    char target[100] = {};
    EXPECT_EQ(readlinkat(FolderDescriptor(file), "", target, sizeof(target)), 6);
    EXPECT_STREQ(target, "script");
    CloseFile(file);
    umask(mask);
    if (geteuid() == 0)
    {
        file = make(L"\\given", {.Mode = 06711, .SetOwner = true, .Owner = 1234, .Group = 4321}, 0);
        const struct stat info = StatOf(file);
        EXPECT_EQ(info.st_uid, 1234u);
        EXPECT_EQ(info.st_gid, 4321u);
        EXPECT_EQ(info.st_mode & 07777, 06711u) << "a change of owners takes these bits";
        CloseFile(file);
    }
    char wrong = 0;
    EXPECT_EQ(Attempt(L"\\wrong", {.Ea = &wrong, .EaLength = 1}), STATUS_INVALID_PARAMETER);
    FolderCreation link = {.LinkTarget = "x"};
    EXPECT_EQ(Attempt(L"\\wrong", {.Ea = &link, .EaLength = sizeof(link)}), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(Exists("wrong"));
}

TEST_F(FolderCreate, ADirectoryPassesItsGroupOn)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "takes the right to give files away";
    }
    MakeDirectory(L"\\shared");
    ASSERT_EQ(chown((Folder / "shared").c_str(), 0, 4444), 0);
    ASSERT_EQ(chmod((Folder / "shared").c_str(), 02775), 0);
    FolderCreation creation = {.Mode = 0755, .SetOwner = true, .Owner = 1234, .Group = 1234};
    for (ULONG options : {0u, static_cast<ULONG>(FILE_DIRECTORY_FILE)})
    {
        PFILE_OBJECT file = Open(
            options == 0 ? WideView(L"\\shared\\file") : WideView(L"\\shared\\dir"), {.Disposition = FILE_CREATE,
                                                                                         .Options = options,
                                                                                         .Access = FILE_READ_ATTRIBUTES,
                                                                                         .Ea = &creation,
                                                                                         .EaLength = sizeof(creation)});
        const struct stat info = StatOf(file);
        EXPECT_EQ(info.st_gid, 4444u);
        EXPECT_EQ(info.st_uid, 1234u);
        EXPECT_EQ(info.st_mode & 07777, options == 0 ? 0755u : 02755u);
        CloseFile(file);
    }
}

TEST_F(FolderCreate, SymbolicLinksAreNotFollowed)
{
    std::filesystem::create_directory(Folder / "dir");
    OnLinux.Put("dir/file", "x");
    std::filesystem::create_symlink("dir", Folder / "alias");
    std::filesystem::create_symlink("/etc", Folder / "out");
    EXPECT_EQ(Attempt(L"\\alias", {.Disposition = FILE_OPEN}), STATUS_STOPPED_ON_SYMLINK);
    EXPECT_EQ(Attempt(L"\\alias\\file", {.Disposition = FILE_OPEN}), STATUS_STOPPED_ON_SYMLINK);
    EXPECT_EQ(Attempt(L"\\out\\passwd", {.Disposition = FILE_OPEN}), STATUS_STOPPED_ON_SYMLINK);
    PFILE_OBJECT link = Open(L"\\alias",
        {.Disposition = FILE_OPEN, .Options = FILE_OPEN_REPARSE_POINT, .Access = FILE_READ_ATTRIBUTES | DELETE});
    FILE_BASIC_INFORMATION basic = {};
    EXPECT_EQ(QueryInformation(link, FileBasicInformation, &basic, sizeof(basic), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(basic.FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_REPARSE_POINT));
    EXPECT_FALSE(Files->IsDirectory(link));
    EXPECT_EQ(PosixDelete(link), STATUS_SUCCESS);
    CloseFile(link);
    EXPECT_FALSE(Exists("alias"));
    EXPECT_TRUE(Exists("dir/file"));
}

TEST_F(FolderCreate, AFolderThatIsLeftOutIsNotThere)
{
    std::filesystem::create_directories(Folder / "a/out/b");
    std::filesystem::create_directories(Folder / "a/outer");
    OnLinux.Put("a/out/file", "served elsewhere");
    Without = (Folder / "a/out").string();
    RemountReadOnly();
    const OpenHow reading = {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA};
    EXPECT_EQ(Attempt(L"\\a\\out", reading), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\a\\out\\file", reading), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\a\\out\\b\\file", reading), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Attempt(L"\\a\\outer", reading), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\a", reading), STATUS_SUCCESS);
}

TEST_F(FolderCreate, AReadOnlyVolumeFollowsLinksInsideOfPathsAndChangesNothing)
{
    std::filesystem::create_directories(Folder / "usr/bin");
    OnLinux.Put("usr/bin/tool", "tool");
    std::filesystem::create_symlink("usr/bin", Folder / "bin");
    std::filesystem::create_symlink("/usr/bin", Folder / "absolute");
    std::filesystem::create_symlink("../../..", Folder / "usr/bin/up");
    RemountReadOnly();
    const OpenHow reading = {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA};
    EXPECT_EQ(Attempt(L"\\bin\\tool", reading), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\absolute\\tool", reading), STATUS_SUCCESS) << "below the folder";
    EXPECT_EQ(Attempt(L"\\usr\\bin\\up\\usr\\bin\\tool", reading), STATUS_SUCCESS) << "never above the folder";
    EXPECT_EQ(Attempt(L"\\bin", reading), STATUS_STOPPED_ON_SYMLINK);
    for (ACCESS_MASK access : {FILE_WRITE_DATA, FILE_APPEND_DATA, static_cast<int>(DELETE)})
    {
        EXPECT_EQ(
            Attempt(L"\\usr\\bin\\tool", {.Disposition = FILE_OPEN, .Access = access}), STATUS_MEDIA_WRITE_PROTECTED);
    }
    for (ULONG disposition : {FILE_CREATE, FILE_OVERWRITE, FILE_OVERWRITE_IF, FILE_SUPERSEDE})
    {
        EXPECT_EQ(Attempt(L"\\usr\\new", {.Disposition = disposition, .Access = FILE_READ_DATA}),
            STATUS_MEDIA_WRITE_PROTECTED);
    }
    EXPECT_EQ(
        Attempt(L"\\usr\\new", {.Disposition = FILE_OPEN_IF, .Access = FILE_READ_DATA}), STATUS_MEDIA_WRITE_PROTECTED);
    PFILE_OBJECT file =
        Open(L"\\bin\\tool", {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA | FILE_WRITE_ATTRIBUTES});
    EXPECT_EQ(Read(file, 0, 10), "tool");
    FILE_BASIC_INFORMATION basic = {};
    EXPECT_EQ(SetInformation(file, FileBasicInformation, &basic, sizeof(basic)), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(SetName(file, FileLinkInformation, 0, L"other"), STATUS_MEDIA_WRITE_PROTECTED);
    CloseFile(file);
    PFILE_OBJECT root = OpenDirectory(L"\\usr");
    file = Open(L"bin\\tool", {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA, .Root = root});
    EXPECT_EQ(NormalName(file), WideString(L"\\usr\\bin\\tool"));
    // What is open already needs no name to be found by.
    std::filesystem::rename(Folder / "usr/bin/tool", Folder / "usr/bin/moved");
    PFILE_OBJECT again = Open(L"", {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA, .Root = file});
    EXPECT_EQ(Read(again, 0, 10), "tool");
    CloseFile(again);
    std::filesystem::rename(Folder / "usr/bin/moved", Folder / "usr/bin/tool");
    CloseFile(file);
    CloseFile(root);
    EXPECT_EQ(List(L"\\usr\\bin"), (std::vector<std::string>{".", "..", "tool", "up"}));
}

TEST_F(FolderCreate, WhoMayNotHaveTheDataLearnsItAtTheOpen)
{
    OnLinux.Put("locked", "x");
    ASSERT_EQ(chmod((Folder / "locked").c_str(), 0), 0);
    ASSERT_EQ(chmod(Folder.c_str(), 0755), 0);
    // Everything is allowed to root.
    const uid_t user = geteuid();
    constexpr uid_t Nobody = 65534;
    ASSERT_EQ(seteuid(user == 0 ? Nobody : user), 0);
    EXPECT_EQ(Attempt(L"\\locked", {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA}), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Attempt(L"\\locked", {.Disposition = FILE_OPEN, .Access = FILE_READ_ATTRIBUTES}), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\new"), STATUS_ACCESS_DENIED);
    ASSERT_EQ(seteuid(user), 0);
}

TEST_F(FolderCreate, DeleteOnCloseTakesTheNameWithTheLastHandle)
{
    PFILE_OBJECT file = Open(L"\\temporary", {.Options = FILE_DELETE_ON_CLOSE});
    Write(file, 0, "gone soon");
    PFILE_OBJECT other = Open(L"\\temporary", {.Disposition = FILE_OPEN});
    CloseFile(file);
    EXPECT_TRUE(Exists("temporary"));
    EXPECT_EQ(Attempt(L"\\temporary", {.Disposition = FILE_OPEN}), STATUS_DELETE_PENDING);
    CloseFile(other);
    EXPECT_FALSE(Exists("temporary"));
}

TEST_F(FolderCreate, AFileThatTookTheNameOfAnOpenOneIsAnotherFile)
{
    MakeFile(L"\\file", "first");
    PFILE_OBJECT first = Open(L"\\file", {.Disposition = FILE_OPEN});
    std::filesystem::rename(Folder / "file", Folder / "moved");
    OnLinux.Put("file", "second");
    PFILE_OBJECT second = Open(L"\\file", {.Disposition = FILE_OPEN});
    EXPECT_NE(first->FsContext, second->FsContext);
    EXPECT_EQ(Read(first, 0, 10), "first");
    EXPECT_EQ(Read(second, 0, 10), "second");
    EXPECT_EQ(PosixDelete(first), STATUS_FILE_DELETED) << "its name is not known any more";
    EXPECT_TRUE(Exists("file"));
    CloseFile(first);
    CloseFile(second);
}

TEST_F(FolderCreate, OpensByFileIdAreNotOffered)
{
    OpenRequest request;
    request.Path = L"\\??\\X:";
    request.FileId = 1;
    request.Options |= FILE_OPEN_BY_FILE_ID;
    PFILE_OBJECT file = nullptr;
    EXPECT_EQ(OpenFile(request, &file), STATUS_NOT_SUPPORTED);
}

TEST(FolderMount, AFolderThatIsNotThereStopsTheSystem)
{
    Volume volume = {};
    EXPECT_DEATH(CreateFolderFileSystem(volume, {.Folder = "/nowhere/at/all"}), "FILE_SYSTEM");
}
}
}
