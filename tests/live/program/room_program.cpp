// A program that makes room in a file while the kernel writes the file back, and counts how often bytes were lost.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
constexpr size_t Size = 256 * 1024;
// How long after the start of the writing room is made: each of these steps in turn.
constexpr int Steps = 100;
constexpr std::chrono::microseconds Step(5);

// Sleeping takes too long for that.
void Spin(std::chrono::microseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end)
    {
    }
}

bool KeepsAll(const char* path, const std::vector<char>& data, std::chrono::microseconds delay)
{
    const int file = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<char> read(Size);
    bool kept = pwrite(file, data.data(), Size, 0) == static_cast<ssize_t>(Size);
    std::thread writer([&] { sync_file_range(file, 0, Size, SYNC_FILE_RANGE_WRITE); });
    Spin(delay);
    kept = fallocate(file, 0, 0, Size / 2 + 4096) == 0 && kept;
    writer.join();
    kept = fsync(file) == 0 && kept;
    posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
    kept = pread(file, read.data(), Size, 0) == static_cast<ssize_t>(Size) && kept;
    close(file);
    return kept && read == data;
}
}

int main(int count, char** arguments)
{
    if (count != 3)
    {
        std::fprintf(stderr, "usage: room_program FILE ROUNDS\n");
        return 2;
    }
    const std::vector<char> data(Size, 'd');
    const int rounds = std::atoi(arguments[2]);
    int lost = 0;
    for (int i = 0; i < rounds; ++i)
    {
        lost += KeepsAll(arguments[1], data, i % Steps * Step) ? 0 : 1;
    }
    std::printf("%d lost\n", lost);
    return 0;
}
