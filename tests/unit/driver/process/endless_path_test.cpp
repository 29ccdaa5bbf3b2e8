// A path without an end, which only a missing terminator makes.
#include "driver/process/setting_list.h"
#include "tests/unit/driver/process/agent_fixture.h"

#include <sys/mman.h>
#include <unistd.h>

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

using namespace agent_test;

namespace
{
// Four GiB and a page of the letter x. One small file stands behind all of it, so that it costs address space only.
class EndlessText
{
public:
    EndlessText()
    {
        const int file = memfd_create("endless", 0);
        if (file < 0 || ftruncate(file, PieceBytes) != 0)
        {
            return;
        }
        void* base = mmap(nullptr, Bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        base_ = base == MAP_FAILED ? nullptr : static_cast<char*>(base);
        for (size_t i = 0; i < Bytes && base_ != nullptr; i += PieceBytes)
        {
            const size_t bytes = std::min(PieceBytes, Bytes - i);
            if (mmap(base_ + i, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0) == MAP_FAILED)
            {
                munmap(base_, Bytes);
                base_ = nullptr;
            }
        }
        close(file);
        for (size_t i = 0; base_ != nullptr && i < PieceBytes / sizeof(WCHAR); ++i)
        {
            reinterpret_cast<WCHAR*>(base_)[i] = L'x';
        }
    }
    ~EndlessText()
    {
        if (base_ != nullptr)
        {
            munmap(base_, Bytes);
        }
    }
    EndlessText(const EndlessText&) = delete;
    EndlessText& operator=(const EndlessText&) = delete;

    // Null when the address space cannot be had.
    PCWSTR Text() const { return reinterpret_cast<PCWSTR>(base_); }

private:
    static constexpr size_t PieceBytes = 64 << 20;
    static constexpr size_t Bytes = (4ull << 30) + PAGE_SIZE;
    char* base_ = nullptr;
};

TEST(EndlessPathTest, APathOfTheGreatestCountIsRefusedAndItsSettingsGo)
{
    if (__has_feature(thread_sanitizer))
    {
        GTEST_SKIP() << "the thread sanitizer would keep a shadow of all four GiB";
    }
    const EndlessText endless;
    ASSERT_NE(endless.Text(), nullptr);
    ResetFailures();
    Machine machine;
    ASSERT_EQ(machine.LoadDriver(Image::Native), STATUS_SUCCESS);
    machine.ClearDebugPrints();
    ULONG id = 77777;
    EXPECT_EQ(AddSetting(ExclusionProcessNames, endless.Text(), &id), STATUS_INVALID_PARAMETER);
    EXPECT_THAT(machine.DebugPrints(), ElementsAre("Tarnveil - RtlStringCbLengthW error c000000d\n"));
    EXPECT_EQ(id, 77777u) << "no number was issued";
    WithLock(ExclusionProcessNames.Settings.Lock, []() REQUIRES_LOCK(ExclusionProcessNames.Settings.Lock)
        { EXPECT_TRUE(ExclusionProcessNames.Settings.Entries.IsEmpty()); });
}
}
