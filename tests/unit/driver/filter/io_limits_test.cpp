// Transfers at the limits of what the cipher path takes on: levels, lengths, buffers that vanish.
#include "hosted/ke/user_access.h"
#include "tests/unit/driver/filter/cipher_fixture.h"

namespace cipher_test
{
namespace
{
// The callbacks themselves, called as the filter manager would for a request that no test can send whole.
class IoLimits : public CipherTest
{
protected:
    struct Shown
    {
        Shown(UCHAR major, PFILE_OBJECT file, ULONG irpFlags, KPROCESSOR_MODE mode, const FLT_PARAMETERS& parameters)
            : Operation{ShownSignature, lastInstance, {},
                  {FLTFL_CALLBACK_DATA_IRP_OPERATION, nullptr, &Operation.Block, {}, nullptr, {}, mode}},
              Related(RelatedObjects(lastInstance, file))
        {
            Operation.Block.MajorFunction = major;
            Operation.Block.IrpFlags = irpFlags;
            Operation.Block.TargetFileObject = file;
            Operation.Block.TargetInstance = lastInstance;
            Operation.Block.Parameters = parameters;
        }
        // The callback data points into it.
        Shown(const Shown&) = delete;
        Shown& operator=(const Shown&) = delete;

        bool Dirty() const { return (Operation.Data.Flags & FLTFL_CALLBACK_DATA_DIRTY) != 0; }
        FLT_PARAMETERS& Parameters() { return Operation.Block.Parameters; }

        ShownOperation Operation;
        FLT_RELATED_OBJECTS Related;
        PVOID Context = nullptr;
    };

    static Shown Write(
        PFILE_OBJECT file, void* buffer, LONGLONG offset, ULONG length, KPROCESSOR_MODE mode = KernelMode)
    {
        FLT_PARAMETERS parameters{};
        parameters.Write.WriteBuffer = buffer;
        parameters.Write.ByteOffset.QuadPart = offset;
        parameters.Write.Length = length;
        return Shown(IRP_MJ_WRITE, file, IRP_NOCACHE, mode, parameters);
    }
    static Shown Read(PFILE_OBJECT file, void* buffer, ULONG length)
    {
        FLT_PARAMETERS parameters{};
        parameters.Read.ReadBuffer = buffer;
        parameters.Read.Length = length;
        return Shown(IRP_MJ_READ, file, IRP_PAGING_IO | IRP_NOCACHE, KernelMode, parameters);
    }
    static Shown Change(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind)
    {
        FLT_PARAMETERS parameters{};
        parameters.SetFileInformation.FileInformationClass = kind;
        return Shown(IRP_MJ_SET_INFORMATION, file, 0, KernelMode, parameters);
    }

    // Gives back what a swap took, without a file system in between. The filter manager frees the MDL.
    std::string FinishWrite(Shown& shown)
    {
        auto& write = shown.Parameters().Write;
        const std::string seen(static_cast<char*>(write.WriteBuffer), write.Length);
        const PMDL mdl = write.MdlAddress;
        EXPECT_EQ(PostWrite(&shown.Operation.Data, &shown.Related, shown.Context, 0), FLT_POSTOP_FINISHED_PROCESSING);
        IoFreeMdl(mdl);
        return seen;
    }

    void ExpectUntouched(Shown& shown, void* buffer, ULONG length)
    {
        EXPECT_FALSE(shown.Dirty());
        EXPECT_EQ(shown.Context, nullptr);
        EXPECT_EQ(shown.Parameters().Write.WriteBuffer, buffer);
        EXPECT_EQ(shown.Parameters().Write.MdlAddress, nullptr);
        EXPECT_EQ(shown.Parameters().Write.Length, length);
    }
};

TEST_F(IoLimits, AboveApcLevelEverythingPassesUnchanged)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    Shown write = Write(file, page_, 0, 512);
    Shown cached = Write(file, page_, 0, 512);
    cached.Operation.Block.IrpFlags = 0;
    Shown read = Read(file, page_, 512);
    Shown change = Change(file, FileEndOfFileInformation);
    {
        const RaisedIrql raised(DISPATCH_LEVEL);
        EXPECT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
        EXPECT_EQ(PreWrite(&cached.Operation.Data, &cached.Related, &cached.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
        EXPECT_EQ(PreRead(&read.Operation.Data, &read.Related, &read.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
        EXPECT_EQ(
            PreSetInformation(&change.Operation.Data, &change.Related, &change.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
        EXPECT_EQ(
            PostSetInformation(&change.Operation.Data, &change.Related, nullptr, 0), FLT_POSTOP_FINISHED_PROCESSING);
    }
    ExpectUntouched(write, page_, 512);
    ExpectUntouched(read, page_, 512);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 0) << "not even a cached write is followed";
}

TEST_F(IoLimits, AtApcLevelTransfersAreSwappedAsBelow)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(512);
    const std::string plain = Pattern(512);
    std::memcpy(page_, plain.data(), plain.size());
    Shown write = Write(file, page_, 0, 512);
    {
        const RaisedIrql raised(APC_LEVEL);
        EXPECT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    }
    EXPECT_TRUE(write.Dirty());
    EXPECT_EQ(FinishWrite(write), Crypt(key_, plain, true));
    EXPECT_EQ(write.Parameters().Write.WriteBuffer, page_);
    EXPECT_EQ(write.Parameters().Write.MdlAddress, nullptr);
    EXPECT_EQ(write.Parameters().Write.Length, 512u);
}

TEST_F(IoLimits, OnlyAnEndOfFileChangeIsFollowed)
{
    PFILE_OBJECT file = OpenStream();
    for (const FILE_INFORMATION_CLASS kind :
        {FileEndOfFileInformation, FileAllocationInformation, FileValidDataLengthInformation, FileBasicInformation})
    {
        Shown change = Change(file, kind);
        EXPECT_EQ(PreSetInformation(&change.Operation.Data, &change.Related, &change.Context),
            kind == FileEndOfFileInformation ? FLT_PREOP_SUCCESS_WITH_CALLBACK : FLT_PREOP_SUCCESS_NO_CALLBACK)
            << kind;
    }
}

TEST_F(IoLimits, AnEndOfFileChangeOfAStreamWithoutAContextIsNotFollowed)
{
    wantContext = false;
    PFILE_OBJECT file = OpenStream();
    Shown change = Change(file, FileEndOfFileInformation);
    EXPECT_EQ(
        PreSetInformation(&change.Operation.Data, &change.Related, &change.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
}

TEST_F(IoLimits, NothingToTransferIsNothingToSwap)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    Shown write = Write(file, page_, 0, 0);
    EXPECT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    ExpectUntouched(write, page_, 0);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 0);
    Shown read = Read(file, page_, 0);
    EXPECT_EQ(PreRead(&read.Operation.Data, &read.Related, &read.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    ExpectUntouched(read, page_, 0);
}

TEST_F(IoLimits, NoBufferAtAllPassesUnchanged)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    Shown write = Write(file, nullptr, 0, 512);
    EXPECT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    ExpectUntouched(write, nullptr, 512);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 0) << "the size is looked at after the buffer";
    Shown read = Read(file, nullptr, 512);
    EXPECT_EQ(PreRead(&read.Operation.Data, &read.Related, &read.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    ExpectUntouched(read, nullptr, 512);
}

TEST_F(IoLimits, AReadThatCannotBeRoundedUpIn32BitsPassesUnchanged)
{
    PFILE_OBJECT file = OpenStream();
    FailRoutine("FltAllocatePoolAlignedWithTag", 1, true);
    for (const ULONG length : {0xfffffff1u, 0xfffffff8u, 0xffffffffu})
    {
        Shown read = Read(file, page_, length);
        EXPECT_EQ(PreRead(&read.Operation.Data, &read.Related, &read.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
        ExpectUntouched(read, page_, length);
    }
    EXPECT_EQ(InjectedFailures(), 0u) << "a buffer of the wrapped length was asked for";
    Shown read = Read(file, page_, 0xfffffff0);
    EXPECT_EQ(PreRead(&read.Operation.Data, &read.Related, &read.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    EXPECT_EQ(InjectedFailures(), 1u) << "the greatest whole number of blocks is taken on";
}

TEST_F(IoLimits, AWriteThatCannotBeLengthenedIn32BitsAsksForItsOwnLength)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(1ll << 40);
    FailRoutine("FltAllocatePoolAlignedWithTag", 1, true);
    uint64_t asked = 0;
    for (const ULONG length : {0xfffffff0u, 0xfffffff1u, 0xfffffff8u, 0xffffffffu})
    {
        Shown write = Write(file, page_, 0, length);
        EXPECT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
        ExpectUntouched(write, page_, length);
        EXPECT_EQ(InjectedFailures(), ++asked) << std::hex << length;
    }
}

TEST_F(IoLimits, OffsetsBeyond4GiBAreComparedInFull)
{
    PFILE_OBJECT file = OpenStream();
    constexpr LONGLONG Far = (5ll << 40) + 512;
    const std::string plain = Pattern(512);
    std::memcpy(page_, plain.data(), plain.size());
    struct
    {
        LONGLONG Size;
        ULONG Length;
        size_t Treated;
    } const cases[] = {{Far + 100, 512, 100}, {Far + 512, 512, 512}, {Far, 512, 512}, {Far + 112, 100, 112},
        {Far + 111, 100, 100}, {1, 512, 512}};
    for (const auto& one : cases)
    {
        SetSize(one.Size);
        ContextOf(file)->TrackedFileSize = 0;
        Shown write = Write(file, page_, Far, one.Length);
        ASSERT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
        const std::string disk = FinishWrite(write);
        EXPECT_EQ(disk.size(), std::max<size_t>(one.Length, one.Treated)) << one.Size;
        EXPECT_EQ(disk.substr(0, one.Treated), OnDisk(key_, Mask, plain.substr(0, one.Treated))) << one.Size;
        EXPECT_EQ(disk.substr(one.Treated), std::string(disk.size() - one.Treated, '\0')) << one.Size;
    }
}

TEST_F(IoLimits, ABufferOfAProgramThatVanishesLetsTheWritePassUnchanged)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(2 * PAGE_SIZE);
    const size_t before = LivePoolAllocations();
    UserRegion region(2 * PAGE_SIZE);
    region.Protect(false, false);
    Shown gone = Write(file, region.Base(), 0, PAGE_SIZE, UserMode);
    EXPECT_EQ(PreWrite(&gone.Operation.Data, &gone.Related, &gone.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    ExpectUntouched(gone, region.Base(), PAGE_SIZE);
    EXPECT_EQ(DebugPrints(), std::vector<std::string>{"PreWrite - free\n"});
    EXPECT_EQ(LivePoolAllocations(), before);
    EXPECT_EQ(DescribeLiveMdls(), "");

    region.Protect(true, true);
    // Half of it is there.
    Shown cut = Write(file, region.Tail(512), 0, 1024, UserMode);
    EXPECT_EQ(PreWrite(&cut.Operation.Data, &cut.Related, &cut.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    ExpectUntouched(cut, region.Tail(512), 1024);
    EXPECT_EQ(LivePoolAllocations(), before);

    const std::string plain = Pattern(512);
    std::memcpy(region.Tail(512), plain.data(), plain.size());
    Shown whole = Write(file, region.Tail(512), 0, 512, UserMode);
    ASSERT_EQ(PreWrite(&whole.Operation.Data, &whole.Related, &whole.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    EXPECT_EQ(FinishWrite(whole), Crypt(key_, plain, true));
}

TEST_F(IoLimits, ALengthenedWriteDoesNotTouchThePageBehindAProgramsBuffer)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(5000);
    UserRegion region(PAGE_SIZE);
    const std::string plain = Pattern(100);
    std::memcpy(region.Tail(100), plain.data(), plain.size());
    Shown write = Write(file, region.Tail(100), 0, 100, UserMode);
    ASSERT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    EXPECT_EQ(FinishWrite(write), Crypt(key_, plain + std::string(12, '\0'), true));
    EXPECT_EQ(write.Parameters().Write.Length, 100u);
}

TEST_F(IoLimits, AnMdlThatIsMappedAlreadyIsNotMappedAgain)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(512);
    const std::string plain = Pattern(512);
    void* pool = ExAllocatePoolWithTag(NonPagedPool, 512, DriverPoolTag);
    std::memcpy(pool, plain.data(), plain.size());
    const PMDL mdl = IoAllocateMdl(pool, 512, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    FailRoutine("MmMapLockedPagesSpecifyCache", 1, true);
    Shown write = Write(file, nullptr, 0, 512);
    write.Parameters().Write.MdlAddress = mdl;
    ASSERT_EQ(PreWrite(&write.Operation.Data, &write.Related, &write.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    EXPECT_EQ(InjectedFailures(), 0u);
    EXPECT_EQ(FinishWrite(write), Crypt(key_, plain, true));
    EXPECT_EQ(write.Parameters().Write.MdlAddress, mdl);
    EXPECT_EQ(write.Parameters().Write.WriteBuffer, nullptr);
    IoFreeMdl(mdl);
    ExFreePoolWithTag(pool, DriverPoolTag);
}

TEST_F(IoLimits, AWriteToTheEndOfFileIsPlacedThere)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(600);
    const std::string plain = Pattern(100);
    std::memcpy(page_, plain.data(), plain.size());
    Shown cached = Write(file, page_, -1, 100);
    cached.Operation.Block.IrpFlags = 0;
    EXPECT_EQ(PreWrite(&cached.Operation.Data, &cached.Related, &cached.Context), FLT_PREOP_SUCCESS_NO_CALLBACK);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 700);
    ContextOf(file)->TrackedFileSize = 0;
    Shown direct = Write(file, page_, -1, 100);
    ASSERT_EQ(PreWrite(&direct.Operation.Data, &direct.Related, &direct.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    EXPECT_EQ(FinishWrite(direct), OnDisk(key_, Mask, plain));
}

TEST_F(IoLimits, AnMdlReadOrItsCompletionIsNotDeciphered)
{
    PFILE_OBJECT file = OpenStream();
    for (const UCHAR minor : {IRP_MN_MDL, IRP_MN_COMPLETE})
    {
        std::memset(page_, 0xee, 512);
        Shown read = Read(file, page_, 512);
        ASSERT_EQ(PreRead(&read.Operation.Data, &read.Related, &read.Context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
        const PMDL mdl = read.Parameters().Read.MdlAddress;
        read.Operation.Block.MinorFunction = minor;
        read.Operation.Data.IoStatus = {{STATUS_SUCCESS}, 512};
        EXPECT_EQ(PostRead(&read.Operation.Data, &read.Related, read.Context, 0), FLT_POSTOP_FINISHED_PROCESSING);
        EXPECT_EQ(std::string(page_, 512), std::string(512, '\xee')) << "minor function " << int(minor);
        EXPECT_EQ(read.Parameters().Read.MdlAddress, mdl) << "restored on the way of deciphering only";
        IoFreeMdl(mdl);
    }
}

TEST_F(IoLimits, PostOperationsWithoutASwapDoNothing)
{
    PFILE_OBJECT file = OpenStream();
    Shown write = Write(file, page_, 0, 512);
    EXPECT_EQ(PostWrite(&write.Operation.Data, &write.Related, nullptr, 0), FLT_POSTOP_FINISHED_PROCESSING);
    ExpectUntouched(write, page_, 512);
    Shown read = Read(file, page_, 512);
    EXPECT_EQ(PostRead(&read.Operation.Data, &read.Related, nullptr, 0), FLT_POSTOP_FINISHED_PROCESSING);
    ExpectUntouched(read, page_, 512);
}
}
}
