// Deleting, renaming and linking in a folder.
#include "tests/unit/hosted/fs/folder/folder_fixture.h"

namespace hosted
{
namespace
{
using FolderChange = FolderVolume;

TEST_F(FolderChange, ADeletionWaitsForTheLastHandleOfTheName)
{
    MakeFile(L"\\file", "x");
    PFILE_OBJECT first = Open(L"\\file");
    PFILE_OBJECT second = Open(L"\\file");
    EXPECT_EQ(Delete(first), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\file"), STATUS_DELETE_PENDING);
    CloseFile(first);
    EXPECT_TRUE(Exists("file"));
    CloseFile(second);
    EXPECT_FALSE(Exists("file"));
    EXPECT_EQ(Attempt(L"\\file", {.Disposition = FILE_CREATE}), STATUS_SUCCESS);
}

TEST_F(FolderChange, ANameGoesAtOnceAndOpensLiveOn)
{
    PFILE_OBJECT first = Open(L"\\file");
    Write(first, 0, "still here");
    PFILE_OBJECT second = Open(L"\\file");
    EXPECT_EQ(PosixDelete(first), STATUS_SUCCESS);
    EXPECT_FALSE(Exists("file"));
    EXPECT_EQ(Attempt(L"\\file", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_NOT_FOUND);
    NormalName(second, STATUS_FILE_DELETED);
    EXPECT_EQ(PosixDelete(second), STATUS_FILE_DELETED);
    EXPECT_EQ(Delete(second), STATUS_FILE_DELETED);
    EXPECT_EQ(StatOf(second).st_nlink, 0u);
    PFILE_OBJECT replacement = Open(L"\\file", {.Disposition = FILE_CREATE});
    Write(replacement, 0, "another");
    CloseFile(first);
    EXPECT_EQ(Read(second, 0, 20), "still here");
    EXPECT_EQ(FlushFile(second), STATUS_SUCCESS);
    EXPECT_EQ(CachePurge(CacheMapOf(second), 0, 0), true);
    EXPECT_EQ(Read(second, 0, 20), "still here") << "from the disk";
    Write(second, 10, " and written");
    CloseFile(second);
    EXPECT_EQ(Read(replacement, 0, 20), "another");
    CloseFile(replacement);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("file"), "another");
}

TEST_F(FolderChange, WhatNobodyCanReadAnyMoreIsNotWritten)
{
    PFILE_OBJECT file = Open(L"\\file");
    Write(file, 0, std::string(100000, 'x'));
    EXPECT_EQ(PosixDelete(file), STATUS_SUCCESS);
    Files->TakePaging();
    CloseFile(file);
    LazyWrite();
    EXPECT_EQ(Files->TakePaging().size(), 0u);
    EXPECT_EQ(CachedBytes(), 0u);
}

TEST_F(FolderChange, AnOpenFileIsOpenedOnceMoreWithoutItsName)
{
    MakeFile(L"\\file", "text");
    PFILE_OBJECT file = Open(L"\\file", {.Disposition = FILE_OPEN, .Access = DELETE});
    EXPECT_EQ(PosixDelete(file), STATUS_SUCCESS);
    MakeFile(L"\\file", "another");
    PFILE_OBJECT again = Open(L"", {.Disposition = FILE_OPEN, .Root = file});
    EXPECT_EQ(Read(again, 0, 10), "text");
    Write(again, 4, " and more");
    EXPECT_EQ(Attempt(L"", {.Disposition = FILE_CREATE, .Root = file}), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Attempt(L"below", {.Root = file}), STATUS_DELETE_PENDING);
    CloseFile(file);
    EXPECT_EQ(Read(again, 0, 20), "text and more");
    PFILE_OBJECT last = Open(L"", {.Disposition = FILE_OVERWRITE, .Root = again});
    EXPECT_EQ(StatOf(again).st_size, 0);
    CloseFile(last);
    CloseFile(again);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("file"), "another");
}

TEST_F(FolderChange, DirectoriesGoOnlyWhenTheyAreEmpty)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\file", "x");
    PFILE_OBJECT directory = Open(L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(Delete(directory), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(PosixDelete(directory), STATUS_DIRECTORY_NOT_EMPTY);
    std::filesystem::remove(Folder / "dir/file");
    EXPECT_EQ(Delete(directory), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\dir\\late"), STATUS_DELETE_PENDING);
    CloseFile(directory);
    EXPECT_FALSE(Exists("dir"));
    MakeDirectory(L"\\dir");
    directory = Open(L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(PosixDelete(directory), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"late", {.Root = directory}), STATUS_DELETE_PENDING);
    MakeDirectory(L"\\dir");
    EXPECT_EQ(Attempt(L"late", {.Root = directory}), STATUS_DELETE_PENDING);
    CloseFile(directory);
    PFILE_OBJECT root = Open(L"\\", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(PosixDelete(root), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Delete(root), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Rename(root, L"\\other"), STATUS_INVALID_PARAMETER);
    CloseFile(root);
}

TEST_F(FolderChange, HardLinksShareOneStream)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\file", "text");
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(SetName(file, FileLinkInformation, 0, L"\\??\\X:\\dir\\other"), STATUS_SUCCESS);
    EXPECT_EQ(SetName(file, FileLinkInformation, 0, L"third"), STATUS_SUCCESS);
    EXPECT_EQ(SetName(file, FileLinkInformation, 0, L"third"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(SetName(file, FileLinkInformation, 1, L"third"), STATUS_NOT_SUPPORTED);
    PFILE_OBJECT other = Open(L"\\dir\\other", {.Disposition = FILE_OPEN});
    EXPECT_EQ(file->FsContext, other->FsContext);
    EXPECT_EQ(NormalName(file), WideString(L"\\file"));
    EXPECT_EQ(NormalName(other), WideString(L"\\dir\\other"));
    Write(file, 4, " that all see");
    EXPECT_EQ(Read(other, 0, 100), "text that all see") << "not yet on disk";
    FILE_STANDARD_INFORMATION standard = {};
    EXPECT_EQ(QueryInformation(other, FileStandardInformation, &standard, sizeof(standard), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(standard.NumberOfLinks, 3u);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 17);
    // The other names keep the data.
    EXPECT_EQ(PosixDelete(file), STATUS_SUCCESS);
    CloseFile(file);
    EXPECT_EQ(Delete(other), STATUS_SUCCESS);
    CloseFile(other);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("third"), "text that all see");
    EXPECT_FALSE(Exists("dir/other"));
    PFILE_OBJECT directory = Open(L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    EXPECT_EQ(SetName(directory, FileLinkInformation, 0, L"dir2"), STATUS_FILE_IS_A_DIRECTORY);
    CloseFile(directory);
}

TEST_F(FolderChange, ARenameTakesEveryFormOfTarget)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\file", "x");
    MakeFile(L"\\taken", "y");
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(Rename(file, L"taken"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Rename(file, L"\\none\\file"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Rename(file, L"a:b"), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Rename(file, L"file"), STATUS_SUCCESS) << "its own name";
    EXPECT_EQ(Rename(file, L"File"), STATUS_SUCCESS) << "another name";
    EXPECT_EQ(NormalName(file), WideString(L"\\File"));
    EXPECT_EQ(Rename(file, L"\\dir\\b"), STATUS_SUCCESS);
    EXPECT_EQ(Rename(file, L"\\Device\\HarddiskVolume7\\dir\\c"), STATUS_SUCCESS);
    EXPECT_TRUE(Exists("dir/c"));
    EXPECT_EQ(NameOf(file), WideString(L"\\dir\\c"));
    EXPECT_EQ(Rename(file, L"\\??\\X:\\taken", true), STATUS_SUCCESS);
    CloseFile(file);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("taken"), "x");
    EXPECT_EQ(List(L"\\"), (std::vector<std::string>{"dir", "taken"}));
}

TEST_F(FolderChange, OfOldARenameLeavesAloneWhatIsOpen)
{
    MakeDirectory(L"\\dir");
    MakeDirectory(L"\\target");
    MakeFile(L"\\dir\\inner", "x");
    MakeFile(L"\\file", "y");
    PFILE_OBJECT inner = Open(L"\\dir\\inner");
    PFILE_OBJECT directory = Open(L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(Rename(directory, L"moved"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Rename(file, L"\\dir\\inner", true), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Rename(file, L"target", true), STATUS_ACCESS_DENIED);
    CloseFile(inner);
    EXPECT_EQ(Rename(directory, L"moved"), STATUS_SUCCESS);
    EXPECT_EQ(Rename(file, L"\\moved\\inner", true), STATUS_SUCCESS);
    EXPECT_EQ(Rename(directory, L"\\elsewhere"), STATUS_ACCESS_DENIED) << "what came in is open";
    CloseFile(file);
    EXPECT_EQ(Rename(directory, L"\\moved\\inside"), STATUS_INVALID_PARAMETER);
    CloseFile(directory);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("moved/inner"), "y");
}

TEST_F(FolderChange, APosixRenameMovesAndReplacesWhatIsOpen)
{
    MakeDirectory(L"\\dir");
    MakeDirectory(L"\\dir\\deep");
    MakeDirectory(L"\\empty");
    MakeDirectory(L"\\full");
    MakeFile(L"\\full\\x", "x");
    MakeFile(L"\\dir\\deep\\inner", "inner");
    MakeFile(L"\\file", "new");
    PFILE_OBJECT inner = Open(L"\\dir\\deep\\inner");
    PFILE_OBJECT directory = Open(L"\\dir", {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE});
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(PosixRename(directory, L"full"), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(PosixRename(directory, L"file"), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(PosixRename(file, L"empty"), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(PosixRename(directory, L"empty", 0), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(PosixRename(directory, L"empty"), STATUS_SUCCESS);
    EXPECT_EQ(NormalName(inner), WideString(L"\\empty\\deep\\inner"));
    EXPECT_EQ(NormalName(directory), WideString(L"\\empty"));
    PFILE_OBJECT again = Open(L"\\empty\\deep\\inner", {.Disposition = FILE_OPEN});
    EXPECT_EQ(again->FsContext, inner->FsContext);
    CloseFile(again);

    Write(inner, 5, " before");
    EXPECT_EQ(PosixRename(file, L"\\empty\\deep\\inner"), STATUS_SUCCESS);
    EXPECT_EQ(Read(inner, 0, 20), "inner before") << "the replaced file lives on";
    EXPECT_EQ(StatOf(inner).st_nlink, 0u);
    NormalName(inner, STATUS_FILE_DELETED);
    EXPECT_EQ(PosixRename(inner, L"back"), STATUS_DELETE_PENDING);
    EXPECT_EQ(NormalName(file), WideString(L"\\empty\\deep\\inner"));
    CloseFile(inner);
    CloseFile(directory);
    CloseFile(file);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("empty/deep/inner"), "new");
}

TEST_F(FolderChange, TwoNamesOfOneFileStayBoth)
{
    MakeFile(L"\\a", "x");
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_EQ(SetName(file, FileLinkInformation, 0, L"b"), STATUS_SUCCESS);
    EXPECT_EQ(PosixRename(file, L"b"), STATUS_SUCCESS);
    EXPECT_EQ(PosixRename(file, L"b", 0), STATUS_OBJECT_NAME_COLLISION);
    CloseFile(file);
    EXPECT_TRUE(Exists("a") && Exists("b"));
}

TEST_F(FolderChange, NamesChangePlaces)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\a", "was a");
    MakeFile(L"\\b", "was b");
    PFILE_OBJECT a = Open(L"\\dir\\a");
    PFILE_OBJECT b = Open(L"\\b");
    EXPECT_EQ(PosixRename(a, L"\\none", RenameEx::Exchange), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(PosixRename(a, L"\\b", RenameEx::Exchange | RenameEx::ReplaceIfExists), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PosixRename(a, L"\\b", RenameEx::Exchange), STATUS_SUCCESS);
    EXPECT_EQ(NormalName(a), WideString(L"\\b"));
    EXPECT_EQ(NormalName(b), WideString(L"\\dir\\a"));
    CloseFile(a);
    EXPECT_EQ(PosixDelete(b), STATUS_SUCCESS);
    CloseFile(b);
    LazyWrite();
    EXPECT_EQ(OnLinux.Get("b"), "was a");
    EXPECT_FALSE(Exists("dir/a"));
}

TEST_F(FolderChange, ANumberUsedAgainIsAnotherFile)
{
    for (int round = 0; round < 8; ++round)
    {
        PFILE_OBJECT file = Open(L"\\file", {.Disposition = FILE_CREATE});
        EXPECT_EQ(SizeOf(file), 0);
        Write(file, 0, "round " + std::to_string(round));
        EXPECT_EQ(PosixDelete(file), STATUS_SUCCESS);
        CloseFile(file);
    }
    EXPECT_EQ(CachedBytes(), 0u);
}

TEST_F(FolderChange, WhatSomebodyElsePutInPlaceOfAnOpenFileStays)
{
    MakeFile(L"\\file", "ours");
    PFILE_OBJECT file = Open(L"\\file");
    std::filesystem::remove(Folder / "file");
    OnLinux.Put("file", "theirs");
    EXPECT_EQ(Rename(file, L"moved"), STATUS_FILE_DELETED);
    EXPECT_EQ(SetName(file, FileLinkInformation, 0, L"linked"), STATUS_FILE_DELETED);
    EXPECT_EQ(Delete(file), STATUS_SUCCESS);
    CloseFile(file);
    EXPECT_EQ(OnLinux.Get("file"), "theirs");
}
}
}
