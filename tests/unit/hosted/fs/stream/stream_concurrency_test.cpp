// Many threads on the same and on different streams, with little memory for the cache.
#include "tests/unit/hosted/fs/volume_fixture.h"

#include <latch>
#include <thread>

namespace hosted
{
namespace
{
class FileConcurrency : public VolumeTest
{
protected:
    static constexpr int Threads = 4;

    template <class Body>
    static void OnThreads(Body&& body)
    {
        std::latch start(Threads);
        std::vector<std::thread> threads;
        for (int number = 0; number < Threads; ++number)
        {
            threads.emplace_back(
                [&, number]
                {
                    start.arrive_and_wait();
                    body(number);
                });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
};

TEST_F(FileConcurrency, DifferentStreamsKeepTheirBytes)
{
    Model().CacheLimitBytes = 3 * CacheViewBytes;
    OnThreads(
        [&](int number)
        {
            const WideString path = L"\\Stream number " + Widen(std::to_string(number));
            const std::string block(10000, static_cast<char>('a' + number));
            for (int round = 0; round < 6; ++round)
            {
                PFILE_OBJECT file = Open(path);
                for (int i = 0; i < 60; ++i)
                {
                    Write(file, i * 10000, block);
                }
                for (int i = 0; i < 60; ++i)
                {
                    EXPECT_TRUE(Read(file, i * 10000, 10000) == block);
                }
                SetEndOfFile(file, 300001);
                EXPECT_TRUE(Read(file, 299990, 100) == block.substr(0, 11));
                CloseFile(file);
                if (number == 0)
                {
                    LazyWrite();
                }
            }
        });
    EXPECT_LE(CachedBytes(), Model().CacheLimitBytes);
}

TEST_F(FileConcurrency, OneStreamFromEverySide)
{
    Model().CacheLimitBytes = 2 * CacheViewBytes;
    MakeFile(L"\\a", std::string(600000, 'x'));
    OnThreads(
        [&](int number)
        {
            for (int round = 0; round < 60; ++round)
            {
                PFILE_OBJECT file = Open(L"\\a", {.Options = number == 1 ? ULONG(FILE_NO_INTERMEDIATE_BUFFERING) : 0});
                char bytes[4096];
                IO_STATUS_BLOCK status;
                switch (number)
                {
                case 0:
                    Write(file, round * 8192, std::string(8192, 'y'));
                    break;
                case 1:
                    Write(file, round * 4096, std::string(512, 'z'));
                    ReadFile(file, round * 512, bytes, 512, &status);
                    break;
                case 2:
                    EXPECT_EQ(SetEndOfFile(file, 600000 - round * 37), STATUS_SUCCESS);
                    FlushFile(file);
                    break;
                default:
                    MappedWrite(CacheMapOf(file), round * 4096, "mapped", 6);
                    MappedRead(CacheMapOf(file), round * 1000, bytes, 100);
                    LazyWrite();
                    break;
                }
                CloseFile(file);
            }
        });
}

TEST_F(FileConcurrency, NamesComeAndGo)
{
    MakeDirectory(L"\\dir");
    OnThreads(
        [&](int number)
        {
            for (int round = 0; round < 100; ++round)
            {
                const WideString path = L"\\dir\\Shared file name " + Widen(std::to_string((round + number) % 5));
                PFILE_OBJECT file = nullptr;
                const NTSTATUS status = TryOpen(path,
                    {.Disposition = round % 3 == 0 ? ULONG(FILE_OVERWRITE_IF) : ULONG(FILE_OPEN_IF),
                        .Options = round % 4 == 0 ? ULONG(FILE_DELETE_ON_CLOSE) : 0},
                    &file);
                EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_DELETE_PENDING) << std::hex << status;
                if (NT_SUCCESS(status))
                {
                    Write(file, 0, "some text");
                    WideString name;
                    EXPECT_EQ(Files->NormalizedName(file, 0, &name), STATUS_SUCCESS);
                    CloseFile(file);
                }
                PFILE_OBJECT dir = OpenDirectory(L"\\dir");
                char buffer[1000];
                QueryDirectory(dir, FileNamesInformation, false, true, {}, buffer, sizeof(buffer), nullptr);
                CloseFile(dir);
                if (number == 0)
                {
                    LazyWrite();
                }
            }
        });
}
}
}
