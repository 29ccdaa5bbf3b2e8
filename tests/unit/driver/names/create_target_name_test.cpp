// Which name a create is judged by, and what becomes of it when a step fails.

#include "driver/core/global_state.h"
#include "driver/names/full_path_name.h"
#include "driver/util/pool.h"
#include "hosted/flt/filter_state.h"
#include "hosted/rtl/debug_print.h"
#include "tests/unit/driver/stand_in.h"
#include "tests/unit/hosted/flt/filter_fixture.h"

#include <gmock/gmock.h>

namespace flt_test
{
namespace
{
using testing::ElementsAre;
using testing::IsEmpty;

constexpr WideView Spelled = L"\\??\\Q:\\Dir\\LONGNA~1.TXT";

class CreateTargetName : public FilterTest
{
protected:
    void SetUp() override
    {
        FilterTest::SetUp();
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        ClearDebugPrints();
    }
    void TearDown() override
    {
        ResetFailures();
        Global.OsVersion = 0;
        Global.VerboseTrace = FALSE;
        FilterTest::TearDown();
    }

    // Asks for the name inside the create, with a failure planned for just that.
    NTSTATUS Name(ULONG options = 0, const char* routine = nullptr, uint64_t number = 1)
    {
        NTSTATUS status = STATUS_PENDING;
        callbacks.Pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*)
        {
            const FLT_RELATED_OBJECTS related = {objects->Size, objects->TransactionContext, objects->Filter,
                Nameless ? AsFltVolume(&NamelessVolume) : objects->Volume, objects->Instance, objects->FileObject,
                objects->Transaction};
            CountedString path;
            if (routine != nullptr)
            {
                FailRoutine(routine, number);
            }
            status = GetCreateTargetName(data, &related, &path);
            Failed = InjectedFailures();
            ResetFailures();
            Result = Narrow(View(path.Get()));
            Capacity = path.Get().MaximumLength;
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        };
        OpenRequest request;
        request.Path = options & FILE_OPEN_BY_FILE_ID ? WideString(L"\\??\\Q:") : WideString(Spelled);
        request.Options = options;
        request.FileId = 0x0004000000000021;
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
        callbacks.Pre = nullptr;
        CloseFile(file);
        return status;
    }

    // Lets the file object's own name fail, so that the filter manager is asked.
    bool Nameless = false;
    Volume NamelessVolume = {};
    uint64_t Failed = 0;
    std::string Result;
    ULONG Capacity = 0;
};

const char NamelessText[] = "FltGetVolumeName Length zero\n";
const char FallbackText[] = "CreateFullPathNameFromFltObjects fail c000009a \\Dir\\LONGNA~1.TXT\n";

TEST_F(CreateTargetName, FileObjectsOwnSpellingComesFirst)
{
    EXPECT_EQ(Name(0, "FltGetFileNameInformation"), STATUS_SUCCESS);
    EXPECT_EQ(Failed, 0u);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume7\\Dir\\LONGNA~1.TXT");
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(CreateTargetName, NormalizedNameIsAskedForWhenThatFails)
{
    files_->Normalized = L"\\dir\\longna~1.txt";
    EXPECT_EQ(Name(0, "FltGetVolumeName"), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume7\\dir\\longna~1.txt");
    EXPECT_THAT(DebugPrints(),
        ElementsAre("FltGetVolumeName fail\n", "CreateFullPathNameFromFltObjects fail c01c000b \\Dir\\LONGNA~1.TXT\n"));
}

TEST_F(CreateTargetName, NameByIdIsTheNormalizedName)
{
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "FltGetVolumeName"), STATUS_SUCCESS);
    // The file object's name is not even tried.
    EXPECT_EQ(Failed, 0u);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume7\\Dir\\long name.txt");
    EXPECT_EQ(Capacity, Result.size() * sizeof(WCHAR));
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

// The name information's own two blocks come before.
TEST_F(CreateTargetName, NameByIdWithoutMemoryIsDenied)
{
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "ExAllocatePoolWithTag", 3), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Failed, 1u);
    EXPECT_EQ(Result, "");
    EXPECT_THAT(DebugPrints(), ElementsAre("PreCreate - TargetName allocate error\n"));
}

TEST_F(CreateTargetName, NameFromInformationWithoutMemoryIsDenied)
{
    Nameless = true;
    EXPECT_EQ(Name(0, "ExAllocatePoolWithTag", 3), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Failed, 1u);
    EXPECT_EQ(Result, "");
    EXPECT_THAT(DebugPrints(), ElementsAre(NamelessText, FallbackText,
                                   "PreCreate - CreateFullPathNameFromNameInfo fail c000009a \\Dir\\LONGNA~1.TXT\n"));
}

TEST_F(CreateTargetName, FailedNameQueryIsDeniedAndSilent)
{
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "FltGetFileNameInformation"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Failed, 1u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
    files_->NameStatus = STATUS_OBJECT_NAME_NOT_FOUND;
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Result, "");
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(CreateTargetName, FailedNameQueryIsTraced)
{
    Nameless = true;
    files_->NameStatus = STATUS_OBJECT_NAME_NOT_FOUND;
    Global.VerboseTrace = TRUE;
    EXPECT_EQ(Name(), STATUS_ACCESS_DENIED);
    EXPECT_THAT(DebugPrints(), ElementsAre(NamelessText, FallbackText,
                                   "PreCreate - FltGetFileNameInformation fail c0000034 \\Dir\\LONGNA~1.TXT\n"));
}

TEST_F(CreateTargetName, NoInformationIsAnEmptyName)
{
    Nameless = true;
    const stand_in::Answer answer(stand_in::Answer::NoFileNameInformation);
    EXPECT_EQ(Name(), STATUS_SUCCESS);
    EXPECT_EQ(Result, "");
    EXPECT_EQ(DebugPrints().back(), "PreCreate - FileNameInformation is null\n");
}

TEST_F(CreateTargetName, FailedParsingIsDenied)
{
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "FltParseFileNameInformation"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Failed, 1u);
    EXPECT_EQ(Result, "");
    EXPECT_THAT(DebugPrints(), ElementsAre("PreCreate - FltParseFileNameInformation fail c000000d\n"));
}

TEST_F(CreateTargetName, Windows7ExpandsAStackThatIsNearlyUsedUp)
{
    Global.OsVersion = OsVersionWindows7;
    Model().StackBytesLeft = 12787;
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume7\\Dir\\long name.txt");
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "KeExpandKernelStackAndCallout"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Failed, 1u);
    EXPECT_EQ(Result, "");
    // What the call itself came to is what counts.
    EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "FltGetFileNameInformation"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Failed, 1u);
}

TEST_F(CreateTargetName, Windows7KeepsAStackWithRoomEnough)
{
    Global.OsVersion = OsVersionWindows7;
    for (ULONG left : {12788u, 20000u, 0u})
    {
        Model().StackBytesLeft = left;
        EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "KeExpandKernelStackAndCallout"), STATUS_SUCCESS) << left;
        EXPECT_EQ(Failed, 0u);
    }
}

TEST_F(CreateTargetName, OtherSystemsNeverExpandTheStack)
{
    Model().StackBytesLeft = 1000;
    for (ULONG version : {0u, 0x06000000u, 0x06020000u, 0x0a000000u})
    {
        Global.OsVersion = version;
        EXPECT_EQ(Name(FILE_OPEN_BY_FILE_ID, "KeExpandKernelStackAndCallout"), STATUS_SUCCESS) << std::hex << version;
        EXPECT_EQ(Failed, 0u);
    }
}

// The fixture's end checks that no name information and no pool is left.
TEST_F(CreateTargetName, EveryCallMayFailOnce)
{
    for (const char* routine : {"FltGetVolumeName", "ExAllocatePoolWithTag", "FltGetFileNameInformation",
             "FltParseFileNameInformation", "KeExpandKernelStackAndCallout"})
    {
        Global.OsVersion = OsVersionWindows7;
        Model().StackBytesLeft = 5000;
        for (ULONG options : {0u, static_cast<ULONG>(FILE_OPEN_BY_FILE_ID)})
        {
            uint64_t number = 0;
            do
            {
                SCOPED_TRACE(routine + std::to_string(++number));
                const NTSTATUS status = Name(options, routine, number);
                EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_ACCESS_DENIED) << std::hex << status;
                EXPECT_EQ(Result.empty(), status != STATUS_SUCCESS);
            } while (Failed != 0);
        }
    }
}
}
}
