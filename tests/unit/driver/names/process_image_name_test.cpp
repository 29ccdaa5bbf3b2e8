// Image paths of processes that are created, and of those that run.

#include "driver/names/process_image_name.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ps/query_hooks.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

class CreatedImageName : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        Information.Size = sizeof(Information);
        Information.FileObject = &File;
        Information.ImageFileName = &ImageName;
        Allocations = LivePoolAllocations();
    }
    void TearDown() override { ResetFailures(); }
    // Null: a network file.
    void Image(Volume* volume, WideView name, WideView imageName)
    {
        File.Vpb = volume != nullptr ? volume->Vpb : nullptr;
        File.FileName = Counted(name);
        ImageName = Counted(imageName);
    }
    void LocalImage()
    {
        Image(Computer.VolumeNamed(L"C:"), L"\\Apps\\Editor.exe", L"\\Device\\HarddiskVolume1\\Apps\\Editor.exe");
    }
    // A failure leaves no result.
    NTSTATUS Get()
    {
        CountedString path;
        const NTSTATUS status = GetFileNameFromCreateInfo(&Information, &path);
        EXPECT_EQ(path.Get().Buffer != nullptr, NT_SUCCESS(status));
        Result = Narrow(View(path.Get()));
        Capacity = path.Get().MaximumLength;
        path.Free();
        EXPECT_EQ(LivePoolAllocations(), Allocations) << DescribeLivePool();
        return status;
    }
    NTSTATUS GetFailing(const char* routine, uint64_t number = 1)
    {
        FailRoutine(routine, number);
        const NTSTATUS status = Get();
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        return status;
    }

    Machine Computer;
    FILE_OBJECT File = {};
    UNICODE_STRING ImageName = {};
    PS_CREATE_NOTIFY_INFO Information = {};
    size_t Allocations = 0;
    std::string Result;
    ULONG Capacity = 0;
};

TEST_F(CreatedImageName, LocalImageHasADriveLetterEvenWhenItsNameIsADevicePath)
{
    LocalImage();
    EXPECT_EQ(Get(), STATUS_SUCCESS);
    EXPECT_EQ(Result, "C:\\Apps\\Editor.exe");
    // "C:" with its terminator, two bytes, the file's name.
    EXPECT_EQ(Capacity, 6u + 2u + File.FileName.MaximumLength);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(CreatedImageName, VolumeWithoutADriveLetterFails)
{
    VolumeOptions hidden;
    hidden.DeviceName = L"\\Device\\HarddiskVolume9";
    hidden.DosName = L"";
    Computer.AddVolume(hidden);
    Allocations = LivePoolAllocations();
    Image(Computer.VolumeNamed(L"\\Device\\HarddiskVolume9"), L"\\a.exe", L"\\??\\Volume{1}\\a.exe");
    EXPECT_EQ(Get(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_THAT(DebugPrints(), ElementsAre("IoVolumeDeviceToDosName failed: 0xc0000034\n"));
}

TEST_F(CreatedImageName, FailedDriveNameIsPassedOn)
{
    LocalImage();
    EXPECT_EQ(GetFailing("IoVolumeDeviceToDosName"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("IoVolumeDeviceToDosName failed: 0xc000009a\n"));
}

TEST_F(CreatedImageName, MappedNetworkDriveGivesTwoLeadingBackslashes)
{
    Image(nullptr, L"\\server\\share\\a.exe", L"\\??\\UNC\\server\\share\\a.exe");
    EXPECT_EQ(Get(), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\\\server\\share\\a.exe");
    Image(nullptr, L"\\server\\share\\a.exe", L"\\??\\unc\\other\\a.exe");
    EXPECT_EQ(Get(), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\\\server\\share\\a.exe");
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(CreatedImageName, OtherNetworkImageKeepsTheSystemsName)
{
    Image(nullptr, L"\\server\\share\\a.exe", L"\\??\\N:\\a.exe");
    EXPECT_EQ(Get(), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\??\\N:\\a.exe");
    EXPECT_EQ(Capacity, ImageName.MaximumLength + 2u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(CreatedImageName, NoMemoryForTheResult)
{
    LocalImage();
    // The system's own block for the drive name comes before.
    EXPECT_EQ(GetFailing("ExAllocatePoolWithTag", 2), STATUS_INSUFFICIENT_RESOURCES);
    Image(nullptr, L"\\server\\share\\a.exe", L"\\??\\UNC\\server\\share\\a.exe");
    EXPECT_EQ(GetFailing("ExAllocatePoolWithTag"), STATUS_INSUFFICIENT_RESOURCES);
    Image(nullptr, L"\\server\\share\\a.exe", L"\\??\\N:\\a.exe");
    EXPECT_EQ(GetFailing("ExAllocatePoolWithTag"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(),
        ElementsAre("Memory allocation error\n", "Memory allocation error\n", "Memory allocation error\n"));
}

class RunningImageName : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        App.emplace(Computer.StartProcess(L"C:\\Apps\\Editor.exe"));
        Computer.ClearDebugPrints();
        Allocations = LivePoolAllocations();
        Handles = TakeInventory().KernelHandles;
    }
    void TearDown() override
    {
        ResetFailures();
        ResetQueryHooks();
    }
    // A failure leaves no name; handles never stay open.
    NTSTATUS Get(HANDLE id)
    {
        const LONG_PTR references = ReferenceCount(App->Object());
        NTSTATUS status;
        {
            PoolPointer<UNICODE_STRING> name;
            ProcessReference process;
            status = GetProcessImageNameFromProcessId(id, &name, &process);
            EXPECT_EQ(static_cast<bool>(name), NT_SUCCESS(status));
            Result = name ? Narrow(View(*name.Get())) : std::string();
            Block = name ? PoolAllocationSize(name.Get()) : 0;
            Referenced = process.Get() != nullptr;
            EXPECT_EQ(ReferenceCount(App->Object()), references + (Referenced ? 1 : 0));
            EXPECT_EQ(TakeInventory().KernelHandles, Handles);
        }
        EXPECT_EQ(ReferenceCount(App->Object()), references);
        EXPECT_EQ(LivePoolAllocations(), Allocations) << DescribeLivePool();
        return status;
    }
    NTSTATUS GetFailing(const char* routine, uint64_t number = 1)
    {
        Computer.ClearDebugPrints();
        FailRoutine(routine, number);
        const NTSTATUS status = Get(App->Id());
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        return status;
    }
    std::string AppId() const { return std::to_string(App->ProcessId()); }

    Machine Computer;
    std::optional<Program> App;
    size_t Allocations = 0;
    size_t Handles = 0;
    std::string Result;
    SIZE_T Block = 0;
    bool Referenced = false;
};

TEST_F(RunningImageName, IsTheDevicePathInOneBlock)
{
    EXPECT_EQ(Get(App->Id()), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume1\\Apps\\Editor.exe");
    // String, characters, terminator: just what the system asked for.
    EXPECT_EQ(Block, sizeof(UNICODE_STRING) + (Result.size() + 1) * sizeof(WCHAR));
    EXPECT_TRUE(Referenced);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(RunningImageName, AtDispatchLevelTheProcessIsNotTouched)
{
    PoolPointer<UNICODE_STRING> name;
    ProcessReference process;
    NTSTATUS status;
    FailRoutine("PsLookupProcessByProcessId", 1, true);
    {
        RaisedIrql raised(DISPATCH_LEVEL);
        status = GetProcessImageNameFromProcessId(App->Id(), &name, &process);
    }
    EXPECT_EQ(InjectedFailures(), 0u);
    EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(process.Get(), nullptr);
    EXPECT_FALSE(name);
    EXPECT_THAT(DebugPrints(), ElementsAre("GetProcessImageNameFromProcessId Failed: ObOpenObjectByPointer should "
                                           "only be called at IRQL <= APC_LEVEL.\n"));
}

TEST_F(RunningImageName, UnknownProcessIsNotFound)
{
    EXPECT_EQ(Get(reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(99996))), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(Referenced);
    EXPECT_THAT(DebugPrints(), ElementsAre("PsLookupProcessByProcessId Failed: 0xC000000DL, ProcessId = 99996\n"));
}

TEST_F(RunningImageName, FailedLookupGivesNoProcess)
{
    EXPECT_EQ(GetFailing("PsLookupProcessByProcessId"), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(Referenced);
    EXPECT_THAT(
        DebugPrints(), ElementsAre("PsLookupProcessByProcessId Failed: 0xC000000DL, ProcessId = " + AppId() + "\n"));
}

TEST_F(RunningImageName, FailedOpenStillHandsTheProcessOver)
{
    EXPECT_EQ(GetFailing("ObOpenObjectByPointer"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(Referenced);
    EXPECT_THAT(DebugPrints(), ElementsAre("ObOpenObjectByPointer Failed: 0xC000009AL, ProcessId = " + AppId() + "\n"));
}

TEST_F(RunningImageName, FailedQueryStillHandsTheProcessOver)
{
    for (uint64_t number : {1, 2})
    {
        EXPECT_EQ(GetFailing("ZwQueryInformationProcess", number), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(Referenced);
        EXPECT_THAT(DebugPrints(), ElementsAre("[DlExtFunc] QueryInformationProcess failed : non-mismatch C000009A\n",
                                       "QueryInformationProcess Failed: c000009a\n"));
    }
}

TEST_F(RunningImageName, NoMemoryForTheName)
{
    EXPECT_EQ(GetFailing("ExAllocatePoolWithTag"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(Referenced);
    EXPECT_THAT(DebugPrints(), ElementsAre("[DlExtFunc] QueryInformationProcess : resource allocation error\n",
                                   "QueryInformationProcess Failed: c000009a\n"));
}
}
