// A create's full path from the file object, and from the name that the filter manager gives.

#include "driver/names/full_path_name.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/flt/filter_state.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

// What a create looks like before any file system saw it.
class FullPathName : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        Allocations = LivePoolAllocations();
    }
    void TearDown() override { ResetFailures(); }
    void Opening(WideView name)
    {
        File.FileName = Counted(name);
        File.RelatedFileObject = nullptr;
    }
    void Opening(WideView related, WideView name)
    {
        Related.FileName = Counted(related);
        File.FileName = Counted(name);
        File.RelatedFileObject = &Related;
    }
    FLT_RELATED_OBJECTS Objects()
    {
        return {sizeof(FLT_RELATED_OBJECTS), 0, nullptr, AsFltVolume(Target), nullptr, &File, nullptr};
    }
    // A failure leaves no result.
    NTSTATUS Take(NTSTATUS status, CountedString& path)
    {
        EXPECT_EQ(path.Get().Buffer != nullptr, NT_SUCCESS(status));
        Result = Narrow(View(path.Get()));
        Capacity = path.Get().MaximumLength;
        path.Free();
        EXPECT_EQ(LivePoolAllocations(), Allocations) << DescribeLivePool();
        return status;
    }

    Machine Computer;
    FILE_OBJECT File = {};
    FILE_OBJECT Related = {};
    Volume* Target = Computer.VolumeNamed(L"C:");
    size_t Allocations = 0;
    std::string Result;
    ULONG Capacity = 0;
};

class NameFromFltObjects : public FullPathName
{
protected:
    NTSTATUS Build()
    {
        CountedString path;
        const FLT_RELATED_OBJECTS objects = Objects();
        return Take(CreateFullPathNameFromFltObjects(&objects, &path), path);
    }
    std::string Built()
    {
        EXPECT_EQ(Build(), STATUS_SUCCESS);
        EXPECT_THAT(DebugPrints(), IsEmpty());
        EXPECT_EQ(Capacity, Result.size() * sizeof(WCHAR));
        return Result;
    }
    NTSTATUS BuildFailing(const char* routine, uint64_t number)
    {
        Opening(L"\\Dir", L"a.txt");
        FailRoutine(routine, number);
        const NTSTATUS status = Build();
        EXPECT_EQ(InjectedFailures(), 1u);
        return status;
    }
};

TEST_F(NameFromFltObjects, AbsoluteNameFollowsTheVolume)
{
    Opening(L"\\Dir\\PLAN~1.TXT");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\PLAN~1.TXT");
}

TEST_F(NameFromFltObjects, RelativeNameFollowsTheRelatedNameAndABackslash)
{
    Opening(L"\\Dir", L"plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\plan.txt");
}

TEST_F(NameFromFltObjects, NoSecondBackslashBehindARelatedNameThatEndsInOne)
{
    Opening(L"\\", L"plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\plan.txt");
    Opening(L"\\Dir\\", L"plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\plan.txt");
}

TEST_F(NameFromFltObjects, StreamOfTheRelatedObjectGetsNoSeparator)
{
    Opening(L"\\Dir\\plan.txt", L":notes");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\plan.txt:notes");
}

TEST_F(NameFromFltObjects, NameThatBringsItsBackslashGetsNoSeparator)
{
    Opening(L"\\Dir", L"\\plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\plan.txt");
}

TEST_F(NameFromFltObjects, EmptyNameIsTheRelatedObjectOrTheVolume)
{
    Opening(L"\\Dir", L"");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir");
    Opening(L"");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1");
    Opening(L"", L"");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1");
}

TEST_F(NameFromFltObjects, SeparatorStandsOnlyBehindARelatedName)
{
    Opening(L"plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1plan.txt");
    Opening(L"", L"plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1plan.txt");
}

TEST_F(NameFromFltObjects, FailedSizeQueryOfTheVolumeNameIsPassedOn)
{
    EXPECT_EQ(BuildFailing("FltGetVolumeName", 1), STATUS_FLT_DELETING_OBJECT);
    EXPECT_THAT(DebugPrints(), ElementsAre("FltGetVolumeName fail\n"));
}

TEST_F(NameFromFltObjects, FailedQueryOfTheVolumeNameIsPassedOn)
{
    EXPECT_EQ(BuildFailing("FltGetVolumeName", 2), STATUS_FLT_DELETING_OBJECT);
    EXPECT_THAT(DebugPrints(), ElementsAre("FltGetVolumeName fail c01c000b\n"));
}

TEST_F(NameFromFltObjects, VolumeWithoutANameIsAFailure)
{
    Volume nameless = {};
    Target = &nameless;
    Opening(L"\\plan.txt");
    EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("FltGetVolumeName Length zero\n"));
}

TEST_F(NameFromFltObjects, NoMemoryForTheVolumeName)
{
    EXPECT_EQ(BuildFailing("ExAllocatePoolWithTag", 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("FltGetVolumeName allocate error\n"));
}

TEST_F(NameFromFltObjects, NoMemoryForTheResult)
{
    EXPECT_EQ(BuildFailing("ExAllocatePoolWithTag", 2), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("Name allocate error\n"));
}

TEST_F(NameFromFltObjects, PathThatNoCountedStringCanHoldIsRefused)
{
    const WideString half = L"\\" + WideString(20000, L'd');
    Opening(half, half);
    EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("Name allocate error\n"));
}

class NameFromNameInfo : public FullPathName
{
protected:
    void Normalized(WideView name)
    {
        Information.Name = Counted(name);
        Information.Volume = Counted(name.substr(0, 23));
        EXPECT_EQ(Narrow(View(Information.Volume)), "\\Device\\HarddiskVolume1");
    }
    NTSTATUS Build()
    {
        CountedString path;
        const FLT_RELATED_OBJECTS objects = Objects();
        return Take(CreateFullPathNameFromNameInfo(&objects, &Information, &path), path);
    }
    std::string Built()
    {
        EXPECT_EQ(Build(), STATUS_SUCCESS);
        EXPECT_THAT(DebugPrints(), IsEmpty());
        return Result;
    }

    FLT_FILE_NAME_INFORMATION Information = {};
};

TEST_F(NameFromNameInfo, StreamIsTheNormalizedNameAsItIs)
{
    WCHAR text[64] = L"\\Device\\HarddiskVolume1\\a.txt:notes";
    Normalized(WideView(text));
    Information.Name.MaximumLength = sizeof(text);
    Opening(L"\\OTHER~1.TXT:notes");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\a.txt:notes");
    EXPECT_EQ(Capacity, sizeof(text));
}

TEST_F(NameFromNameInfo, EqualNamesGiveTheNormalizedSpelling)
{
    Normalized(L"\\Device\\HarddiskVolume1\\Dir\\Plan.txt");
    Opening(L"\\DIR\\PLAN.TXT");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\Plan.txt");
    // Room for the longer of the two, and a terminator.
    EXPECT_EQ(Capacity, Information.Name.Length + sizeof(WCHAR));
}

TEST_F(NameFromNameInfo, TrailingBackslashMakesNoDifference)
{
    Normalized(L"\\Device\\HarddiskVolume1\\Dir");
    Opening(L"\\Dir\\");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir");
    EXPECT_EQ(Capacity, Information.Name.Length + 2 * sizeof(WCHAR));
}

TEST_F(NameFromNameInfo, BackslashOfTheRootIsNoTrailingOne)
{
    Normalized(L"\\Device\\HarddiskVolume1\\");
    Opening(L"\\");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\");
    // Without it the root would be named as spelled.
    Normalized(L"\\Device\\HarddiskVolume1");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\");
}

TEST_F(NameFromNameInfo, OtherNameWinsAsTheCallerSpelledIt)
{
    Normalized(L"\\Device\\HarddiskVolume1\\Program Files\\a.exe");
    Opening(L"\\PROGRA~1\\a.exe");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\PROGRA~1\\a.exe");
    Normalized(L"\\Device\\HarddiskVolume1\\a");
    Opening(L"\\much longer than the normalized name");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\much longer than the normalized name");
    EXPECT_EQ(Capacity, Result.size() * sizeof(WCHAR) + sizeof(WCHAR));
}

TEST_F(NameFromNameInfo, RelativeNameThatEndsTheNormalizedOneGivesTheNormalized)
{
    Normalized(L"\\Device\\HarddiskVolume1\\Dir\\Plan.txt");
    Opening(L"\\Dir", L"PLAN.TXT");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\Plan.txt");
    Opening(L"\\Dir", L"");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1\\Dir\\Plan.txt");
}

TEST_F(NameFromNameInfo, EndOfTheNameCountsOnlyWithARelatedObject)
{
    Normalized(L"\\Device\\HarddiskVolume1\\Dir\\Plan.txt");
    Opening(L"Plan.txt");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1Plan.txt");
}

TEST_F(NameFromNameInfo, OtherRelativeNameFollowsTheVolume)
{
    Normalized(L"\\Device\\HarddiskVolume1\\Dir\\Plan of today.txt");
    Opening(L"\\Dir", L"PLANOF~1.TXT");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1PLANOF~1.TXT");
}

TEST_F(NameFromNameInfo, RelativeNameLongerThanTheNormalizedOneIsAnother)
{
    Normalized(L"\\Device\\HarddiskVolume1\\a");
    Opening(L"\\", L"this name is longer than all of the normalized name");
    EXPECT_EQ(Built(), "\\Device\\HarddiskVolume1this name is longer than all of the normalized name");
}

TEST_F(NameFromNameInfo, NoMemoryIsSilentHere)
{
    for (WideView name : {WideView(L"\\Device\\HarddiskVolume1\\a"), WideView(L"\\Device\\HarddiskVolume1\\a:b")})
    {
        Normalized(name);
        Opening(L"\\a");
        FailRoutine("ExAllocatePoolWithTag");
        EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        EXPECT_THAT(DebugPrints(), IsEmpty());
    }
}
}
