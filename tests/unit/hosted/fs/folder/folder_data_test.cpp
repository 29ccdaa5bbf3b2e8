// The sizes that a stored file goes through, and the data of files of a folder.
#include "tests/unit/hosted/fs/folder/folder_fixture.h"

#include "hosted/fs/folder/folder_stream.h"
#include "hosted/fs/folder/stored_changes.h"

#include <fcntl.h>
#include <latch>
#include <random>
#include <thread>

namespace hosted
{
namespace
{
class FolderData : public FolderVolume
{
protected:
    LONGLONG StoredSize(const std::string& path)
    {
        return static_cast<LONGLONG>(std::filesystem::file_size(Folder / path));
    }

    // What has become of the stored file, step by step.
    static std::vector<std::pair<LONGLONG, size_t>> TakeChanges() { return std::exchange(changes_, {}); }

    void Watch()
    {
        changes_.clear();
        SetStoredChangeWatcher([](const StoredChange& change) { changes_.emplace_back(change.Offset, change.Length); });
    }
    ~FolderData() override { SetStoredChangeWatcher(nullptr); }

private:
    inline static std::vector<std::pair<LONGLONG, size_t>> changes_;
};

using Changes = std::vector<std::pair<LONGLONG, size_t>>;

TEST_F(FolderData, AShrunkFileKeepsTheBlockOfItsEndUntilThatIsWritten)
{
    PFILE_OBJECT file = Open(L"\\file");
    Write(file, 0, std::string(10000, 'x'));
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 10000);
    EXPECT_EQ(SetEndOfFile(file, 5003), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 5008);
    EXPECT_EQ(SizeOf(file), 5003);
    EXPECT_EQ(SetEndOfFile(file, 5001), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 5008);
    EXPECT_EQ(Read(file, 4990, 100), std::string(11, 'x'));
    Watch();
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    // The journal's file and its record, the page, the cut, the journal's end.
    EXPECT_EQ(TakeChanges(), (Changes{{0, 0}, {0, sizeof(EndRecord) + 16}, {4096, 905}, {5001, 0}, {0, 0}}));
    EXPECT_EQ(StoredSize("file"), 5001);
    EXPECT_TRUE(std::filesystem::is_empty(Folder / ".tarnveil-journal"));
    // A beginning of a short last block needs nothing.
    EXPECT_EQ(SetEndOfFile(file, 4997), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 4997);
    EXPECT_EQ(SetEndOfFile(file, 4096), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 4096);
    CloseFile(file);
}

TEST_F(FolderData, AGrownFileWritesItsOldEndFirst)
{
    MakeFile(L"\\file", "short");
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(SetEndOfFile(file, 3 * CacheViewBytes + 5), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 5) << "its last block is still a short one";
    struct stat info = StatOf(file);
    EXPECT_EQ(info.st_size, 3 * CacheViewBytes + 5);
    Write(file, 2 * CacheViewBytes + 4096, std::string(100, 'y'));
    EXPECT_EQ(Read(file, CacheViewBytes, 10), std::string(10, '\0'));
    Watch();
    // Only a later page is asked for, but the first goes before it.
    EXPECT_EQ(CacheFlush(CacheMapOf(file), 2 * CacheViewBytes, CacheViewBytes), STATUS_SUCCESS);
    EXPECT_EQ(TakeChanges(), (Changes{{0, 4096}, {2 * CacheViewBytes + 4096, 4096}}));
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 3 * CacheViewBytes + 5);
    CloseFile(file);
    EXPECT_EQ(OnLinux.Get("file").substr(0, 6), std::string("short\0", 6));
}

TEST_F(FolderData, ASizeWithoutPagesToWriteIsThatOfTheStoredFileAtOnce)
{
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(SetEndOfFile(file, 1 << 20), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 1 << 20);
    CloseFile(file);
    file = Open(L"\\file");
    EXPECT_EQ(SetEndOfFile(file, 7), STATUS_SUCCESS);
    EXPECT_EQ(SetEndOfFile(file, 1 << 20), STATUS_SUCCESS);
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(StoredSize("file"), 1 << 20);
    CloseFile(file);
}

TEST_F(FolderData, NonCachedWritesBehindAShortEndComeAfterIt)
{
    MakeFile(L"\\file", "short");
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\file");
    PFILE_OBJECT direct = Open(L"\\file", {.Options = FILE_NO_INTERMEDIATE_BUFFERING});
    EXPECT_EQ(SetEndOfFile(file, 100000), STATUS_SUCCESS);
    Watch();
    Write(direct, 8192, std::string(512, 'd'));
    EXPECT_EQ(TakeChanges().front(), (std::pair<LONGLONG, size_t>(0, 4096)));
    Write(direct, 200704, std::string(512, 'e'));
    EXPECT_EQ(Read(direct, 8192, 512), std::string(512, 'd'));
    EXPECT_EQ(Read(file, 0, 6), std::string("short\0", 6));
    EXPECT_EQ(SizeOf(file), 200704 + 512);
    CloseFile(direct);
    CloseFile(file);
}

TEST_F(FolderData, AFullDiskFailsWritesAndNotTheFile)
{
    MakeFile(L"\\file", std::string(5000, 'x'));
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\file");
    EXPECT_EQ(SetEndOfFile(file, 1ll << 60), STATUS_DISK_FULL);
    EXPECT_EQ(SizeOf(file), 5000);
    EXPECT_EQ(Read(file, 4990, 100), std::string(10, 'x'));
    CloseFile(file);
}

TEST_F(FolderData, AStoredFileMadeShorterFromOutsideFailsReads)
{
    MakeFile(L"\\file", std::string(5000, 'x'));
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\file");
    std::filesystem::resize_file(Folder / "file", 100);
    char byte;
    IO_STATUS_BLOCK status = {};
    EXPECT_EQ(ReadFile(file, 4500, &byte, 1, &status), STATUS_UNEXPECTED_IO_ERROR);
    CloseFile(file);
}

// Every change of size between ends inside, at and behind blocks, pages and views, in three ways, against a string.
TEST_F(FolderData, EveryChangeOfSizeLeavesTheBytesOfTheModel)
{
    const LONGLONG ends[] = {0, 1, 15, 16, 17, 4095, 4096, 4097, 4111, 4112, 8192, 8200, CacheViewBytes - 1,
        CacheViewBytes, CacheViewBytes + 33};
    const std::string pattern = []
    {
        std::string bytes;
        for (int i = 0; i < CacheViewBytes + 100; ++i)
            bytes += static_cast<char>('a' + i * 31 % 23);
        return bytes;
    }();
    for (int way = 0; way < 3; ++way)
    {
        for (LONGLONG from : ends)
        {
            for (LONGLONG to : ends)
            {
                PFILE_OBJECT file = Open(L"\\file", {.Disposition = FILE_OVERWRITE_IF});
                Write(file, 0, pattern.substr(0, from));
                std::string model = pattern.substr(0, from);
                if (way > 0)
                {
                    ASSERT_EQ(FlushFile(file), STATUS_SUCCESS);
                }
                ASSERT_EQ(SetEndOfFile(file, to), STATUS_SUCCESS);
                model.resize(to);
                if (way == 2)
                {
                    ASSERT_EQ(SetEndOfFile(file, to + 21), STATUS_SUCCESS);
                    model.resize(to + 21);
                }
                ASSERT_TRUE(Read(file, 0, CacheViewBytes + 100) == model) << from << " to " << to << " way " << way;
                CloseFile(file);
                LazyWrite();
                ASSERT_TRUE(OnLinux.Get("file") == model) << from << " to " << to << " way " << way;
            }
        }
    }
}

TEST_F(FolderData, ThreadsOpenWriteRenameAndRemove)
{
    Model().CacheLimitBytes = 3 * CacheViewBytes;
    MakeDirectory(L"\\dir");
    constexpr int Threads = 4;
    std::latch start(Threads);
    std::vector<std::thread> threads;
    for (int number = 0; number < Threads; ++number)
    {
        threads.emplace_back(
            [&, number]
            {
                std::mt19937 random(number);
                start.arrive_and_wait();
                for (int round = 0; round < 150; ++round)
                {
                    const WideString path = L"\\dir\\f" + Widen(std::to_string(random() % 3));
                    PFILE_OBJECT file = nullptr;
                    if (!NT_SUCCESS(TryOpen(path, {}, &file)))
                    {
                        continue;
                    }
                    IO_STATUS_BLOCK status = {};
                    const std::string text(1 + random() % 9000, static_cast<char>('a' + number));
                    WriteFile(file, random() % 20000, text.data(), static_cast<ULONG>(text.size()), &status);
                    std::string back(4096, 0);
                    ReadFile(file, 0, back.data(), 4096, &status);
                    switch (random() % 6)
                    {
                    case 0:
                        PosixDelete(file);
                        break;
                    case 1:
                        PosixRename(file, L"\\dir\\f" + Widen(std::to_string(random() % 3)));
                        break;
                    case 2:
                        SetEndOfFile(file, random() % 10000);
                        break;
                    case 3:
                        FlushFile(file);
                        break;
                    case 4:
                        Delete(file);
                        break;
                    default:
                        List(L"\\dir");
                        NameOf(file);
                    }
                    StatOf(file);
                    CloseFile(file);
                    if (number == 0)
                    {
                        LazyWrite();
                    }
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    LazyWrite();
    EXPECT_EQ(CachedBytes(), 0u) << "no stream is left in use";
}
}
}
