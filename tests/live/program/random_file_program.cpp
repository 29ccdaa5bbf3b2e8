// Random operations on one file, against a model in memory.
//
// usage: random_file_program FILE SEED OPERATIONS buffered|direct
//
// Prints what differed, and how to replay it; exit code 1 then, 2 for wrong use.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{
constexpr size_t LargestFile = 1 << 20;
constexpr size_t LargestTransfer = 40000;
constexpr size_t Sector = 4096;

class Tester
{
public:
    Tester(std::string path, unsigned seed, bool direct) : path_(std::move(path)), direct_(direct), random_(seed)
    {
        Open(O_CREAT | O_TRUNC);
        if (posix_memalign(&aligned_, Sector, LargestTransfer + 2 * Sector) != 0)
        {
            Fail("no memory");
        }
    }
    ~Tester()
    {
        close(file_);
        std::free(aligned_);
    }

    void Step()
    {
        ++step_;
        using Operation = void (Tester::*)();
        static constexpr Operation operations[] = {
            &Tester::Write,
            &Tester::Write,
            &Tester::Write,
            &Tester::Read,
            &Tester::Read,
            &Tester::Read,
            &Tester::Append,
            &Tester::Truncate,
            &Tester::MappedRead,
            &Tester::MappedWrite,
            &Tester::Reserve,
            &Tester::PunchHole,
            &Tester::Reopen,
            &Tester::Synchronize,
            &Tester::CompareSize,
        };
        (this->*operations[Number(std::size(operations))])();
    }

    void CompareAll()
    {
        std::vector<char> found(model_.size() + 1);
        size_t done = 0;
        while (done < found.size())
        {
            const ssize_t got = pread(file_, found.data() + done, found.size() - done, static_cast<off_t>(done));
            Check(got, "reading everything");
            if (got == 0)
            {
                break;
            }
            done += static_cast<size_t>(got);
        }
        Compare(found.data(), done, 0, model_.size(), "everything");
    }

private:
    size_t Number(size_t below) { return std::uniform_int_distribution<size_t>(0, below - 1)(random_); }

    [[noreturn]] void Fail(const std::string& what) const
    {
        std::printf("step %llu: %s\n", step_, what.c_str());
        std::exit(1);
    }

    void Check(ssize_t result, const char* what) const
    {
        if (result < 0)
        {
            Fail(std::string(what) + ": " + std::strerror(errno));
        }
    }

    void Open(int flags)
    {
        file_ = open(path_.c_str(), O_RDWR | O_CLOEXEC | flags, 0644);
        Check(file_, "open");
    }

    void Compare(const char* found, size_t length, size_t offset, size_t expected, const char* what) const
    {
        if (length != expected)
        {
            Fail(std::string(what) + ": " + std::to_string(length) + " bytes, not " + std::to_string(expected));
        }
        for (size_t i = 0; i < length; ++i)
        {
            if (found[i] != model_[offset + i])
            {
                Fail(std::string(what) + ": another byte at " + std::to_string(offset + i) + " of " +
                     std::to_string(model_.size()));
            }
        }
    }

    std::vector<char> RandomBytes(size_t length)
    {
        std::vector<char> bytes(length);
        for (char& byte : bytes)
        {
            byte = static_cast<char>(random_());
        }
        return bytes;
    }

    void WriteAt(size_t offset, size_t length)
    {
        const std::vector<char> bytes = RandomBytes(length);
        if (model_.size() < offset + length)
        {
            model_.resize(offset + length);
        }
        std::copy(bytes.begin(), bytes.end(), model_.begin() + static_cast<std::ptrdiff_t>(offset));
        const ssize_t written = direct_ && offset % Sector == 0 && length % Sector == 0
                                    ? WriteDirectly(bytes, offset)
                                    : pwrite(file_, bytes.data(), length, static_cast<off_t>(offset));
        Check(written, "write");
        if (static_cast<size_t>(written) != length)
        {
            Fail("a short write");
        }
    }

    ssize_t WriteDirectly(const std::vector<char>& bytes, size_t offset)
    {
        const int file = open(path_.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
        Check(file, "open with O_DIRECT");
        std::memcpy(aligned_, bytes.data(), bytes.size());
        const ssize_t written = pwrite(file, aligned_, bytes.size(), static_cast<off_t>(offset));
        close(file);
        return written;
    }

    void Write()
    {
        size_t offset = Number(LargestFile - LargestTransfer);
        size_t length = 1 + Number(LargestTransfer);
        if (direct_ && Number(2) == 0)
        {
            offset -= offset % Sector;
            length = std::max(length - length % Sector, Sector);
        }
        WriteAt(offset, length);
    }

    void Append()
    {
        const size_t length = 1 + Number(5000);
        if (model_.size() + length <= LargestFile)
        {
            WriteAt(model_.size(), length);
        }
    }

    void Read()
    {
        const size_t offset = Number(LargestFile);
        const size_t length = 1 + Number(LargestTransfer);
        std::vector<char> found(length);
        const ssize_t got = pread(file_, found.data(), length, static_cast<off_t>(offset));
        Check(got, "read");
        const size_t expected = offset >= model_.size() ? 0 : std::min(length, model_.size() - offset);
        Compare(found.data(), static_cast<size_t>(got), offset, expected, "read");
    }

    void Truncate()
    {
        // Often near the end, where blocks and pages are cut.
        const bool near = Number(2) == 0 && !model_.empty();
        const size_t size = near ? model_.size() - Number(std::min<size_t>(model_.size(), 100)) : Number(LargestFile);
        Check(ftruncate(file_, static_cast<off_t>(size)), "ftruncate");
        model_.resize(size);
    }

    template <class Use>
    void WithMapping(int protection, Use&& use)
    {
        if (model_.empty())
        {
            return;
        }
        void* mapped = mmap(nullptr, model_.size(), protection, MAP_SHARED, file_, 0);
        if (mapped == MAP_FAILED)
        {
            Fail(std::string("mmap: ") + std::strerror(errno));
        }
        use(static_cast<char*>(mapped));
        munmap(mapped, model_.size());
    }

    void MappedRead()
    {
        WithMapping(PROT_READ,
            [this](const char* mapped)
            {
                const size_t offset = Number(model_.size());
                const size_t length = std::min(1 + Number(LargestTransfer), model_.size() - offset);
                Compare(mapped + offset, length, offset, length, "mapped read");
            });
    }

    void MappedWrite()
    {
        WithMapping(PROT_READ | PROT_WRITE,
            [this](char* mapped)
            {
                const size_t offset = Number(model_.size());
                const std::vector<char> bytes =
                    RandomBytes(std::min(1 + Number(LargestTransfer), model_.size() - offset));
                std::copy(bytes.begin(), bytes.end(), mapped + offset);
                std::copy(bytes.begin(), bytes.end(), model_.begin() + static_cast<std::ptrdiff_t>(offset));
            });
    }

    void Reserve()
    {
        const size_t offset = Number(LargestFile / 2);
        const size_t length = 1 + Number(LargestFile / 2);
        Check(fallocate(file_, 0, static_cast<off_t>(offset), static_cast<off_t>(length)), "fallocate");
        model_.resize(std::max(model_.size(), offset + length));
    }

    void PunchHole()
    {
        const size_t offset = Number(LargestFile);
        const size_t length = 1 + Number(LargestTransfer);
        Check(fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                  static_cast<off_t>(length)),
            "punching a hole");
        for (size_t i = offset; i < std::min(offset + length, model_.size()); ++i)
        {
            model_[i] = 0;
        }
    }

    void Reopen()
    {
        Check(close(file_), "close");
        Open(0);
    }

    void Synchronize() { Check(fsync(file_), "fsync"); }

    void CompareSize()
    {
        struct stat info = {};
        Check(stat(path_.c_str(), &info), "stat");
        if (static_cast<size_t>(info.st_size) != model_.size())
        {
            Fail("a size of " + std::to_string(info.st_size) + ", not " + std::to_string(model_.size()));
        }
    }

    const std::string path_;
    const bool direct_;
    std::mt19937 random_;
    unsigned long long step_ = 0;
    int file_ = -1;
    void* aligned_ = nullptr;
    std::vector<char> model_;
};
}

int main(int count, char** arguments)
{
    const std::string mode = count == 5 ? arguments[4] : "";
    if (mode != "buffered" && mode != "direct")
    {
        std::fprintf(stderr, "usage: random_file_program FILE SEED OPERATIONS buffered|direct\n");
        return 2;
    }
    const unsigned seed = static_cast<unsigned>(std::strtoul(arguments[2], nullptr, 10));
    const unsigned long operations = std::strtoul(arguments[3], nullptr, 10);
    std::printf("replay: random_file_program FILE %u %lu %s\n", seed, operations, mode.c_str());
    std::fflush(stdout);
    Tester tester(arguments[1], seed, mode == "direct");
    for (unsigned long i = 0; i < operations; ++i)
    {
        tester.Step();
    }
    tester.CompareAll();
    return 0;
}
