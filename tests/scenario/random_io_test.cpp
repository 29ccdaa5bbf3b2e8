// Random reads and writes of one enciphered stream by every road, against a plain array of bytes.
#include "tests/scenario/cipher_scenario.h"
#include "tests/support/temporary_folder.h"

#include <cstdlib>
#include <iostream>
#include <random>

namespace cipher_test
{
namespace
{
constexpr WideView Path = L"C:\\Sandbox\\random.bin";
constexpr size_t MaximumSize = 96 << 10;
constexpr size_t Sector = 512;
// The runs of the suite share the operations.
constexpr unsigned Runs = 6;

uint64_t FromEnvironment(const char* name, uint64_t otherwise)
{
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

class RandomIo
{
public:
    RandomIo(CipherScenario& scenario, uint64_t seed) : scenario_(scenario), random_(seed)
    {
        scenario_.Editor->Create(Path).Close();
        OpenAll();
    }

    // False when the stream and the model differ.
    bool Step()
    {
        switch (Below(40))
        {
        case 0:
            return Truncate();
        case 1:
            return Extend();
        case 2:
            return file_->Flush() == STATUS_SUCCESS && CheckDisk();
        case 3:
            scenario_.Computer.FlushAll();
            return CheckDisk();
        case 4:
            CloseAll();
            OpenAll();
            return true;
        case 5:
            return Below(8) != 0 || Remount();
        default:
            return Transfer();
        }
    }

    bool Finish() { return Remount(); }

private:
    bool Transfer()
    {
        switch (Below(6))
        {
        case 0:
        case 1:
            return CachedWrite();
        case 2:
            return CachedRead();
        case 3:
            return NonCachedWrite();
        case 4:
            return Below(2) != 0 ? NonCachedRead() : MappedRead();
        default:
            return MappedWrite();
        }
    }

    size_t Below(size_t limit) { return limit == 0 ? 0 : random_() % limit; }
    // Mostly short, at times several pages.
    size_t Length(size_t limit)
    {
        constexpr size_t Most[] = {20, 600, 5000, 20000};
        return std::min(limit, 1 + Below(Most[Below(4)]));
    }
    std::string Bytes(size_t length)
    {
        // Zero blocks have a meaning of their own on the disk.
        return Below(6) == 0 ? std::string(length, '\0') : Pattern(length, static_cast<unsigned>(random_()));
    }
    void Place(size_t offset, const std::string& bytes)
    {
        model_.resize(std::max(model_.size(), offset + bytes.size()), '\0');
        model_.replace(offset, bytes.size(), bytes);
    }

    bool CachedWrite()
    {
        const size_t offset = Below(std::min(MaximumSize, model_.size() + 3000));
        const std::string bytes = Bytes(Length(MaximumSize - offset));
        const bool done = file_->Write(bytes, static_cast<LONGLONG>(offset)) == STATUS_SUCCESS;
        Place(offset, bytes);
        return done && file_->Information() == bytes.size();
    }

    bool CachedRead()
    {
        const size_t offset = Below(model_.size() + 100);
        const size_t length = Length(MaximumSize);
        const std::string bytes = file_->Read(static_cast<LONGLONG>(offset), static_cast<ULONG>(length));
        return bytes == (offset < model_.size() ? model_.substr(offset, length) : std::string());
    }

    // Whole sectors, and not across the end of file: what lies behind that is lost, which has its own test.
    bool NonCachedWrite()
    {
        const size_t within = model_.size() / Sector;
        size_t first = Below(within);
        size_t count = within == 0 ? 0 : std::min(within - first, 1 + Below(12));
        if (within == 0 || Below(8) == 0)
        {
            first = (model_.size() + Sector - 1) / Sector + Below(3);
            count = 1 + Below(12);
        }
        if ((first + count) * Sector > MaximumSize)
        {
            return true;
        }
        const std::string bytes = Bytes(count * Sector);
        const bool done = direct_->Write(bytes, static_cast<LONGLONG>(first * Sector)) == STATUS_SUCCESS;
        Place(first * Sector, bytes);
        return done;
    }

    // Cipher text, of which a block that was never written is zero.
    bool NonCachedRead()
    {
        const size_t offset = Below(model_.size() / Sector + 1) * Sector;
        const size_t length = (1 + Below(12)) * Sector;
        const std::string disk = direct_->Read(static_cast<LONGLONG>(offset), static_cast<ULONG>(length));
        return offset >= model_.size() ? disk.empty() : IsCipherOf(disk, model_.substr(offset, length));
    }

    bool MappedRead()
    {
        const size_t offset = Below(model_.size());
        const size_t length = Length(model_.size() - offset);
        return length == 0 ||
               view_->Read(static_cast<LONGLONG>(offset), static_cast<ULONG>(length)) == model_.substr(offset, length);
    }

    bool MappedWrite()
    {
        const size_t offset = Below(model_.size());
        const std::string bytes = Bytes(Length(model_.size() - offset));
        const bool done = bytes.empty() || view_->Write(bytes, static_cast<LONGLONG>(offset)) == STATUS_SUCCESS;
        model_.replace(offset, bytes.size(), bytes);
        return done;
    }

    bool Truncate()
    {
        model_.resize(Below(model_.size() + 1));
        return file_->SetEndOfFile(static_cast<LONGLONG>(model_.size())) == STATUS_SUCCESS;
    }

    bool Extend()
    {
        model_.resize(std::min(MaximumSize, model_.size() + Below(20000)), '\0');
        return file_->SetEndOfFile(static_cast<LONGLONG>(model_.size())) == STATUS_SUCCESS;
    }

    bool Remount()
    {
        CloseAll();
        scenario_.Computer.FlushAll();
        scenario_.Computer.Remount(L"C:");
        OpenAll();
        return file_->Size() == static_cast<LONGLONG>(model_.size()) && file_->ReadAll() == model_;
    }

    // Nothing is dirty.
    bool CheckDisk() { return IsCipherOf(scenario_.Computer.Disk(Path), model_); }

    bool IsCipherOf(const std::string& disk, const std::string& plain)
    {
        if (disk.size() != plain.size())
        {
            return false;
        }
        const std::string expected = scenario_.OnDisk(plain);
        const std::string zeros(16, '\0');
        for (size_t i = 0; i < disk.size(); i += 16)
        {
            const bool unwritten = disk.compare(i, 16, zeros) == 0 && plain.compare(i, 16, zeros) == 0;
            if (!unwritten && disk.compare(i, 16, expected, i, 16) != 0)
            {
                return false;
            }
        }
        return true;
    }

    void OpenAll()
    {
        file_.emplace(scenario_.Editor->Open(Path));
        direct_.emplace(scenario_.Editor->OpenNonCached(Path));
        view_.emplace(file_->MapView());
    }
    void CloseAll()
    {
        view_.reset();
        direct_.reset();
        file_.reset();
    }

    CipherScenario& scenario_;
    std::mt19937_64 random_;
    std::string model_;
    std::optional<ProgramFile> file_;
    std::optional<ProgramFile> direct_;
    std::optional<MappedView> view_;
};

struct RunKind
{
    const char* Name;
    size_t KeyBytes;
    SIZE_T CacheBytes;
    bool Folder = false; // the volume is a folder of the host
};

class RandomIoRun : public testing::TestWithParam<RunKind>
{
};

TEST_P(RandomIoRun, ReadsWhatWasWritten)
{
    const uint64_t seed = FromEnvironment("TARNVEIL_RANDOM_SEED", std::random_device()());
    const uint64_t operations = FromEnvironment("TARNVEIL_RANDOM_OPERATIONS", 200000);
    std::cout << "replay: TARNVEIL_RANDOM_SEED=" << seed << " TARNVEIL_RANDOM_OPERATIONS=" << operations
              << " scenario_tests --gtest_filter=*RandomIoRun*/" << GetParam().Name << std::endl;
    ScenarioOptions options;
    options.Key = Pattern(GetParam().KeyBytes, static_cast<unsigned>(seed));
    options.Machine.System.CacheLimitBytes = GetParam().CacheBytes;
    const TemporaryFolder folder;
    if (GetParam().Folder)
    {
        options.Machine.Volumes.front().Folder = folder.Path();
    }
    CipherScenario scenario(options);
    RandomIo io(scenario, seed);
    for (uint64_t i = 0; i < (operations + Runs - 1) / Runs; ++i)
    {
        ASSERT_TRUE(io.Step()) << "operation " << i << " of seed " << seed;
    }
    EXPECT_TRUE(io.Finish()) << "at the end of seed " << seed;
}

INSTANTIATE_TEST_SUITE_P(Keys, RandomIoRun,
    testing::Values(RunKind{"Key128", 16, 64 << 20}, RunKind{"Key192", 24, 64 << 20}, RunKind{"Key256", 32, 64 << 20},
        RunKind{"SmallCache", 16, 1 << 18}, RunKind{"Folder", 16, 64 << 20, true},
        RunKind{"FolderSmallCache", 16, 1 << 18, true}),
    [](const auto& info) { return info.param.Name; });
}
}
