#include "tests/unit/driver/filter/cipher_fixture.h"

namespace cipher_test
{
namespace
{
// The volume's root is the sandbox: everything but the exceptions is denied while there is no key.
class CreateDecisionGate : public CipherTest
{
protected:
    void SetUp() override
    {
        CipherTest::SetUp();
        // What a create looks at is there, and empty, without a load.
        InitializeGlobalState();
        Global.KeyLength = 0;
        Global.PrefixSandboxPath = Prefix;
        file_ = OpenStream();
    }
    void TearDown() override
    {
        Global.PrefixSandboxPath = {};
        CipherTest::TearDown();
    }

    FLT_PREOP_CALLBACK_STATUS Judge()
    {
        FLT_IO_PARAMETER_BLOCK block{};
        block.MajorFunction = IRP_MJ_CREATE;
        block.TargetFileObject = file_;
        block.TargetInstance = lastInstance;
        ShownOperation shown{ShownSignature, lastInstance, block,
            {FLTFL_CALLBACK_DATA_IRP_OPERATION, AsThread(CurrentThread()), &shown.Block, {}, nullptr, {}, UserMode}};
        shown.Data.IoStatus.Information = 7;
        const FLT_RELATED_OBJECTS related = RelatedObjects(lastInstance, file_);
        PVOID context = nullptr;
        const FLT_PREOP_CALLBACK_STATUS result = PreCreate(&shown.Data, &related, &context);
        EXPECT_EQ(context, nullptr);
        status_ = shown.Data.IoStatus;
        dirty_ = (shown.Data.Flags & FLTFL_CALLBACK_DATA_DIRTY) != 0;
        return result;
    }

    WCHAR text_[32] = L"\\Device\\HarddiskVolume7\\";
    const UNICODE_STRING Prefix = {48, 48, text_};
    PFILE_OBJECT file_ = nullptr;
    bool dirty_ = false;
};

TEST_F(CreateDecisionGate, ADenialCompletesTheOpen)
{
    EXPECT_EQ(Judge(), FLT_PREOP_COMPLETE);
    EXPECT_EQ(status_.Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(status_.Information, 0u);
    EXPECT_TRUE(dirty_);
}

TEST_F(CreateDecisionGate, AboveThePassiveLevelEverythingPasses)
{
    const RaisedIrql raised(APC_LEVEL);
    EXPECT_EQ(Judge(), FLT_PREOP_SUCCESS_NO_CALLBACK);
    EXPECT_FALSE(dirty_);
}

TEST_F(CreateDecisionGate, AVolumeOpenPasses)
{
    file_->Flags |= FO_VOLUME_OPEN;
    EXPECT_EQ(Judge(), FLT_PREOP_SUCCESS_NO_CALLBACK);
    file_->Flags &= ~FO_VOLUME_OPEN;
}

TEST_F(CreateDecisionGate, APagingFilePasses)
{
    files_->PagingFile = true;
    EXPECT_EQ(Judge(), FLT_PREOP_SUCCESS_NO_CALLBACK);
}

TEST_F(CreateDecisionGate, WithoutASandboxFolderEverythingPasses)
{
    Global.PrefixSandboxPath = {};
    EXPECT_EQ(Judge(), FLT_PREOP_SUCCESS_NO_CALLBACK);
    EXPECT_FALSE(dirty_);
}

TEST_F(CreateDecisionGate, WithoutANameEverythingPasses)
{
    FailRoutine("FltGetVolumeName", 1, true);
    files_->NameStatus = STATUS_OBJECT_NAME_NOT_FOUND;
    EXPECT_EQ(Judge(), FLT_PREOP_SUCCESS_NO_CALLBACK);
    EXPECT_GT(InjectedFailures(), 0u);
    EXPECT_FALSE(dirty_);
}
}
}
