// Random operations on one file, compared with an array of bytes.
#include "tests/support/temporary_folder.h"
#include "tests/unit/hosted/fs/volume_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>

namespace hosted
{
namespace
{
constexpr LONGLONG MostBytes = 700 << 10; // a little more than two and a half views

class FileModel : public VolumeTest
{
protected:
    FileModel()
    {
        const char* given = std::getenv("TARNVEIL_SEED");
        seed_ = given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
        random_.seed(seed_);
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        std::cout << "seed " << seed_ << ": TARNVEIL_SEED=" << seed_
                  << " unit_tests --gtest_filter=" << test->test_suite_name() << '.' << test->name() << '\n';
    }

    ULONG Pick(ULONG bound) { return static_cast<ULONG>(random_() % bound); }

    // Near page and sector borders more often than elsewhere.
    LONGLONG PickOffset()
    {
        LONGLONG offset = Pick(static_cast<ULONG>(MostBytes));
        offset = Pick(3) == 0 ? offset / 4096 * 4096 + Pick(33) - 16 : offset;
        return std::clamp<LONGLONG>(offset, 0, MostBytes);
    }

    ULONG PickLength() { return 1 + Pick(Pick(4) == 0 ? 300000 : 6000); }

    std::string PickBytes(ULONG length)
    {
        std::string bytes(length, '\0');
        char value = static_cast<char>(random_());
        std::generate(bytes.begin(), bytes.end(), [&] { return value += 7; });
        return bytes;
    }

    void OpenBoth()
    {
        cached_ = Open(L"\\Random file.data");
        direct_ = Open(L"\\Random file.data", {.Options = FILE_NO_INTERMEDIATE_BUFFERING});
    }

    void CloseBoth()
    {
        CloseFile(cached_);
        CloseFile(direct_);
    }

    void Put(LONGLONG offset, const std::string& bytes)
    {
        model_.resize(std::max<size_t>(model_.size(), offset + bytes.size()));
        model_.replace(offset, bytes.size(), bytes);
    }

    std::string Expected(LONGLONG offset, ULONG length) const
    {
        return offset < static_cast<LONGLONG>(model_.size()) ? model_.substr(offset, length) : std::string();
    }

    void Transfer(bool cached, bool write)
    {
        LONGLONG offset = PickOffset();
        ULONG length = PickLength();
        if (!cached)
        {
            offset = offset / 512 * 512;
            length = (length + 511) / 512 * 512;
        }
        PFILE_OBJECT file = cached ? cached_ : direct_;
        if (write)
        {
            const std::string bytes = PickBytes(length);
            Write(file, offset, bytes);
            Put(offset, bytes);
        }
        else
        {
            ASSERT_EQ(Read(file, offset, length), Expected(offset, length)) << offset << " + " << length;
        }
    }

    void Mapped(bool write)
    {
        const LONGLONG size = static_cast<LONGLONG>(model_.size());
        const LONGLONG offset = PickOffset();
        if (offset >= size)
        {
            return;
        }
        const ULONG length = static_cast<ULONG>(std::min<LONGLONG>(PickLength(), size - offset));
        if (write)
        {
            const std::string bytes = PickBytes(length);
            ASSERT_EQ(MappedWrite(CacheMapOf(cached_), offset, bytes.data(), length), STATUS_SUCCESS);
            Put(offset, bytes);
            return;
        }
        std::string bytes(length, '?');
        ASSERT_EQ(MappedRead(CacheMapOf(cached_), offset, bytes.data(), length), STATUS_SUCCESS);
        ASSERT_EQ(bytes, Expected(offset, length));
    }

    void Step()
    {
        switch (Pick(20))
        {
        case 0:
        case 1:
        {
            const LONGLONG size = PickOffset();
            ASSERT_EQ(SetEndOfFile(cached_, size), STATUS_SUCCESS);
            model_.resize(static_cast<size_t>(size));
            break;
        }
        case 2:
            ASSERT_EQ(FlushFile(cached_), STATUS_SUCCESS);
            ASSERT_EQ(OnDisk(L"\\Random file.data"), model_);
            break;
        case 3:
            ASSERT_TRUE(CachePurge(CacheMapOf(cached_), PickOffset() / 4096 * 4096, 4096 * Pick(100)));
            break;
        case 4:
            LazyWrite();
            break;
        case 5:
            CloseBoth();
            if (Pick(2) == 0)
            {
                Remount();
            }
            OpenBoth();
            break;
        case 6:
        case 7:
            Transfer(false, true);
            break;
        case 8:
        case 9:
            Transfer(false, false);
            break;
        case 10:
        case 11:
            Mapped(true);
            break;
        case 12:
            Mapped(false);
            break;
        case 13:
        case 14:
        case 15:
            Transfer(true, false);
            break;
        default:
            Transfer(true, true);
            break;
        }
        ASSERT_EQ(SizeOf(cached_), static_cast<LONGLONG>(model_.size()));
    }

    void Run(int steps)
    {
        OpenBoth();
        for (int i = 0; i < steps && !HasFailure(); ++i)
        {
            Step();
        }
        EXPECT_EQ(Read(cached_, 0, static_cast<ULONG>(model_.size() + 1)), model_);
        CloseBoth();
        LazyWrite();
        EXPECT_EQ(OnDisk(L"\\Random file.data"), model_);
    }

    uint64_t seed_;
    std::mt19937_64 random_;
    std::string model_;
    PFILE_OBJECT cached_ = nullptr;
    PFILE_OBJECT direct_ = nullptr;
};

TEST_F(FileModel, MemoryStore)
{
    Run(2500);
}

TEST_F(FileModel, UnderMemoryPressure)
{
    Model().CacheLimitBytes = CacheViewBytes;
    Run(2500);
}

TEST_F(FileModel, StrictEndOfFile)
{
    Dismount();
    Options.StrictEndOfFile = true;
    Mount();
    Run(2500);
}

TEST_F(FileModel, DirectoryStore)
{
    const TemporaryFolder folder;
    Dismount();
    MakeStoreFor = [&] { return CreateDirectoryStore(folder.Path()); };
    Mount();
    Run(1500);
    Dismount();
}
}
}
