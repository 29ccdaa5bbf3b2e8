#include "tests/support/temporary_folder.h"
#include "tests/unit/hosted/fs/volume_fixture.h"

#include <fstream>

namespace hosted
{
namespace
{
namespace disk = std::filesystem;

class DirectoryVolume : public VolumeTest
{
protected:
    DirectoryVolume()
    {
        Dismount();
        MakeStoreFor = [this] { return CreateDirectoryStore(folder_.string()); };
        Mount();
    }
    ~DirectoryVolume() override { Dismount(); }

    ULONGLONG IdOf(WideView path)
    {
        PFILE_OBJECT file = Open(path, {.Disposition = FILE_OPEN, .Access = FILE_READ_DATA});
        ULONGLONG id = 0;
        EXPECT_EQ(QueryInformation(file, FileInternalInformation, &id, sizeof(id), nullptr), STATUS_SUCCESS);
        CloseFile(file);
        return id;
    }

    const TemporaryFolder host_;
    const disk::path& folder_ = host_.Path();
};

TEST_F(DirectoryVolume, StreamsAreOrdinaryFiles)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\\x00dc"
             L"bersicht.txt",
        "plan");
    MakeFile(L"\\dir\\\x00dc"
             L"bersicht.txt:note",
        "noted");
    LazyWrite();
    EXPECT_EQ(host_.Get("dir/Übersicht.txt"), "plan");
    EXPECT_EQ(host_.Get("dir/Übersicht.txt:note"), "noted");
    EXPECT_EQ(Attempt(L"\\dir", {.Options = FILE_DELETE_ON_CLOSE}), STATUS_SUCCESS);
    EXPECT_TRUE(disk::exists(folder_ / "dir"));
    EXPECT_EQ(Attempt(L"\\dir\\\x00dc"
                      L"bersicht.txt",
                  {.Options = FILE_DELETE_ON_CLOSE}),
        STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\dir", {.Options = FILE_DELETE_ON_CLOSE}), STATUS_SUCCESS);
    EXPECT_FALSE(disk::exists(folder_ / "dir"));
}

TEST_F(DirectoryVolume, AnotherMountFindsEverythingAgain)
{
    MakeDirectory(L"\\Some folder");
    MakeFile(L"\\Some folder\\Long name two.txt", "2");
    MakeFile(L"\\Some folder\\Long name one.txt", "1");
    MakeFile(L"\\Some folder\\Long name one.txt:s", "stream");
    const ULONGLONG one = IdOf(L"\\Some folder\\LONGNA~2.TXT");
    const ULONGLONG two = IdOf(L"\\SOMEFO~1\\LONGNA~1.TXT");
    EXPECT_NE(one, two);
    for (int i = 0; i < 2; ++i)
    {
        Remount();
        EXPECT_EQ(IdOf(L"\\Some folder\\Long name one.txt"), one);
        EXPECT_EQ(IdOf(L"\\SOMEFO~1\\LONGNA~1.TXT"), two);
        EXPECT_EQ(OnDisk(L"\\SOMEFO~1\\LONGNA~2.TXT"), "1");
        EXPECT_EQ(OnDisk(L"\\SOMEFO~1\\LONGNA~2.TXT:s"), "stream");
    }
}

TEST_F(DirectoryVolume, NamesSurviveARunThatWasCutOff)
{
    MakeFile(L"\\Long name b");
    MakeFile(L"\\Long name a");
    const ULONGLONG id = IdOf(L"\\Long name a");
    // What the folder holds while the volume is still mounted, with a record torn by the end of the run.
    const disk::path copy = folder_.string() + "-copy";
    disk::copy(folder_, copy, disk::copy_options::recursive);
    std::ofstream(copy / ".tarnveil-volume", std::ios::app) << "N\t99\t13";
    Dismount();
    disk::remove_all(folder_);
    disk::rename(copy, folder_);
    Mount();
    EXPECT_EQ(IdOf(L"\\LONGNA~2"), id);
    EXPECT_EQ(IdOf(L"\\Long name a"), id);
}

TEST_F(DirectoryVolume, FilesPutThereByHandAppear)
{
    Dismount();
    disk::create_directories(folder_ / "sub");
    host_.Put("sub/by hand.txt", "hand");
    host_.Put("sub/by hand.txt:more", "stream");
    host_.Put("sub/bad?name", "");
    host_.Put("Same", "first");
    host_.Put("same", "second");
    disk::create_symlink("sub", folder_ / "link");
    Mount();
    EXPECT_EQ(OnDisk(L"\\sub\\BYHAND~1.TXT"), "hand");
    EXPECT_EQ(OnDisk(L"\\sub\\by hand.txt:more"), "stream");
    EXPECT_EQ(OnDisk(L"\\SAME"), "first");
    EXPECT_FALSE(IsOnDisk(L"\\link"));
    PFILE_OBJECT file = Open(L"\\sub\\by hand.txt");
    EXPECT_EQ(Read(file, 0, 10), "hand");
    Write(file, 4, "!");
    CloseFile(file);
    LazyWrite();
    EXPECT_EQ(host_.Get("sub/by hand.txt"), "hand!");
}

TEST_F(DirectoryVolume, AMissingIndexIsMadeAnew)
{
    MakeFile(L"\\Long name b", "b");
    MakeFile(L"\\Long name a", "a");
    Dismount();
    disk::remove(folder_ / ".tarnveil-volume");
    Mount();
    EXPECT_EQ(OnDisk(L"\\LONGNA~1"), "a");
    EXPECT_EQ(OnDisk(L"\\LONGNA~2"), "b");
    Dismount();
    host_.Put(".tarnveil-volume", "tarnveil-volume 1\nN\tnonsense\nX\n\nN\t1\n");
    Mount();
    EXPECT_EQ(OnDisk(L"\\LONGNA~1"), "a");
}

TEST_F(DirectoryVolume, NamesThatCannotBeHeldAreRefused)
{
    EXPECT_EQ(Attempt(L"\\" + WideString(128, 0x00dc)), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\" + WideString(127, 0x00dc)), STATUS_SUCCESS);
    EXPECT_EQ(Attempt(L"\\" + WideString(127, 0x00dc) + L":s"), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Attempt(L"\\.tarnveil-volume"), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(DirectoryVolume, ExtensionIsSparse)
{
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_EQ(SetEndOfFile(file, 1ll << 33), STATUS_SUCCESS);
    EXPECT_EQ(Read(file, 1ll << 32, 3), std::string(3, '\0'));
    EXPECT_EQ(disk::file_size(folder_ / "a"), 1ull << 33);
    CloseFile(file);
}

TEST_F(DirectoryVolume, FilesStayUsableWhileTheyMoveAndBeyondTheOpenLimit)
{
    MakeDirectory(L"\\from");
    std::vector<PFILE_OBJECT> files;
    for (int i = 0; i < 200; ++i)
    {
        const WideString name = L"\\" + Widen(std::to_string(i));
        files.push_back(Open(name));
        Write(files.back(), 0, std::to_string(i));
    }
    LazyWrite();
    const auto descriptors = std::distance(disk::directory_iterator("/proc/self/fd"), disk::directory_iterator());
    EXPECT_LT(descriptors, 120);
    for (int i = 0; i < 200; ++i)
    {
        CachePurge(CacheMapOf(files[i]), 0, 0);
        EXPECT_EQ(Read(files[i], 0, 10), std::to_string(i));
        CloseFile(files[i]);
    }
    MakeFile(L"\\from\\a", "one");
    MakeFile(L"\\from\\a:s", "two");
    LazyWrite();
    PFILE_OBJECT stream = Open(L"\\from\\a:s");
    PFILE_OBJECT file = Open(L"\\from\\a");
    alignas(8) char buffer[64] = {};
    auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer);
    rename->FileNameLength = 4;
    rename->FileName[0] = L'\\';
    rename->FileName[1] = L'b';
    EXPECT_EQ(SetInformation(file, FileRenameInformation, buffer, sizeof(buffer)), STATUS_SUCCESS);
    EXPECT_EQ(Read(stream, 0, 10), "two");
    Write(file, 0, "new");
    CloseFile(file);
    CloseFile(stream);
    LazyWrite();
    EXPECT_EQ(host_.Get("b"), "new");
    EXPECT_EQ(host_.Get("b:s"), "two");
}
}
}
