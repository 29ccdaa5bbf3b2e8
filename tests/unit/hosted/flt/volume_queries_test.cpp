#include "tests/unit/hosted/flt/filter_fixture.h"

namespace flt_test
{
namespace
{
class FltVolumeQueries : public FilterTest
{
protected:
    PFLT_VOLUME FltVolume() { return reinterpret_cast<PFLT_VOLUME>(volume_); }
};

TEST_F(FltVolumeQueries, VolumeName)
{
    constexpr ULONG Bytes = sizeof(L"\\Device\\HarddiskVolume7") - sizeof(WCHAR);
    ULONG needed = 0;
    EXPECT_EQ(FltGetVolumeName(FltVolume(), nullptr, &needed), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, Bytes);
    EXPECT_EQ(FltGetVolumeName(FltVolume(), nullptr, nullptr), STATUS_INVALID_PARAMETER);

    WCHAR buffer[64];
    buffer[Bytes / sizeof(WCHAR)] = L'#';
    UNICODE_STRING name{10, Bytes - 1, buffer};
    needed = 0;
    EXPECT_EQ(FltGetVolumeName(FltVolume(), &name, &needed), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(name.Length, 0);
    EXPECT_EQ(needed, Bytes);
    name.MaximumLength = Bytes;
    EXPECT_EQ(FltGetVolumeName(FltVolume(), &name, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(View(name)), "\\Device\\HarddiskVolume7");
    EXPECT_EQ(buffer[Bytes / sizeof(WCHAR)], L'#') << "no terminator";
    FailRoutine("FltGetVolumeName");
    EXPECT_EQ(FltGetVolumeName(FltVolume(), &name, nullptr), STATUS_FLT_DELETING_OBJECT);
}

TEST_F(FltVolumeQueries, IsDirectory)
{
    const PFILE_OBJECT file = Open();
    BOOLEAN directory = 7;
    EXPECT_EQ(FltIsDirectory(file, instance_, &directory), STATUS_SUCCESS);
    EXPECT_EQ(directory, FALSE);
    files_->Directory = true;
    EXPECT_EQ(FltIsDirectory(file, instance_, &directory), STATUS_SUCCESS);
    EXPECT_EQ(directory, TRUE);
    FailRoutine("FltIsDirectory");
    EXPECT_EQ(FltIsDirectory(file, instance_, &directory), STATUS_INSUFFICIENT_RESOURCES);
    const PVOID stream = file->FsContext;
    file->FsContext = nullptr;
    EXPECT_EQ(FltIsDirectory(file, instance_, &directory), STATUS_INVALID_PARAMETER);
    file->FsContext = stream;
    CloseFile(file);
}

TEST_F(FltVolumeQueries, AlignedPool)
{
    for (const SIZE_T bytes : {1, 100, 511, 512, 4096, 5000})
    {
        const size_t before = LivePoolAllocations();
        auto* buffer = static_cast<PUCHAR>(FltAllocatePoolAlignedWithTag(instance_, NonPagedPool, bytes, ContextTag));
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(buffer) % 512, 0u);
        EXPECT_TRUE(IsPoolAddress(buffer));
        EXPECT_TRUE(IsPoolAddress(buffer + bytes - 1));
        EXPECT_EQ(LivePoolAllocations(), before + 1);
        EXPECT_TRUE(std::any_of(buffer, buffer + bytes, [](UCHAR byte) { return byte != 0; })) << "never zeroed";
        std::memset(buffer, 0x5A, bytes);
        EXPECT_DEATH(FltFreePoolAlignedWithTag(instance_, buffer, 'rhtO'), "ALIGNED_POOL_FREE");
        EXPECT_DEATH(FltFreePoolAlignedWithTag(instance_, buffer + 1, ContextTag), "ALIGNED_POOL_FREE");
        FltFreePoolAlignedWithTag(instance_, buffer, ContextTag);
        EXPECT_EQ(LivePoolAllocations(), before);
        EXPECT_DEATH(FltFreePoolAlignedWithTag(instance_, buffer, ContextTag), "ALIGNED_POOL_FREE");
    }
}

TEST_F(FltVolumeQueries, AlignedPoolIsAsGoodAsPoolForAnMdl)
{
    const PVOID buffer = FltAllocatePoolAlignedWithTag(instance_, NonPagedPool, 4096, ContextTag);
    const PMDL mdl = IoAllocateMdl(buffer, 4096, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    EXPECT_EQ(mdl->MappedSystemVa, buffer);
    IoFreeMdl(mdl);
    FltFreePoolAlignedWithTag(instance_, buffer, ContextTag);
}

TEST_F(FltVolumeQueries, AlignmentOfAByteAddressableMediumIsSixteen)
{
    const MountedFake bytes = Mount(L"\\Device\\HarddiskVolume8", L"", FILE_DEVICE_DISK_FILE_SYSTEM, 1);
    // The latest instance is that volume's. A canary stands right behind a length that is no multiple.
    auto* buffer = static_cast<PUCHAR>(FltAllocatePoolAlignedWithTag(instance_, NonPagedPool, 33, ContextTag));
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(buffer) % 16, 0u);
    FltFreePoolAlignedWithTag(instance_, buffer, ContextTag);
    DismountVolume(bytes.Mounted);
}

TEST_F(FltVolumeQueries, AlignedPoolNoticesOverruns)
{
    auto* buffer = static_cast<PUCHAR>(FltAllocatePoolAlignedWithTag(instance_, NonPagedPool, 500, ContextTag));
    const SIZE_T behind = 500;
    if (IsPoolAddress(buffer + behind))
    {
        EXPECT_DEATH(
            {
                buffer[behind] ^= 0xFF;
                FltFreePoolAlignedWithTag(instance_, buffer, ContextTag);
            },
            "ALIGNED_POOL_OVERRUN");
    }
    FltFreePoolAlignedWithTag(instance_, buffer, ContextTag);
}

TEST_F(FltVolumeQueries, AlignedPoolFailsWhenToldTo)
{
    FailRoutine("FltAllocatePoolAlignedWithTag");
    EXPECT_EQ(FltAllocatePoolAlignedWithTag(instance_, NonPagedPool, 16, ContextTag), nullptr);
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(FltAllocatePoolAlignedWithTag(instance_, NonPagedPool, 16, ContextTag), nullptr);
}
}
}
