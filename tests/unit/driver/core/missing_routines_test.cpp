// Systems that lack routines which the driver looks up by name. A routine that was found once stays known for the
// program's life, so each of these runs in a fresh process of its own.

#include "driver/core/global_state.h"
#include "driver/core/system_routines.h"
#include "driver/util/pool.h"
#include "hosted/ex/system_routines.h"
#include "hosted/machine/native_image.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

#include <cstdlib>

namespace
{
using namespace hosted;
using testing::ExitedWithCode;
using testing::HasSubstr;

const char NoProcessQuery[] = "[DlExtFunc] Cannot resolve ZwQueryInformationProcess\n";
const char NoSystemQuery[] = "[DlExtFunc] Cannot resolve ZwQuerySystemInformation\n";

class MissingRoutines : public testing::TestWithParam<SystemModel>
{
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override { GTEST_FLAG_SET(death_test_style, "fast"); }
    static std::string EntryPrints(const std::string& unresolved)
    {
        char version[60];
        snprintf(version, sizeof(version), "Tarnveil - OS Version: 0x%02x%02x0000\n",
            static_cast<unsigned>(GetParam().MajorVersion), static_cast<unsigned>(GetParam().MinorVersion));
        return "Tarnveil Driver Entry " + Narrow(Machine::ServiceKey) + "\n" + unresolved +
               "Tarnveil.sys: Failed to ZwOpenKey. Path = " + Narrow(Machine::ProductKey) + " NTStatus = c0000034\n" +
               version +
               "SandboxCryptKey Query c0000034\n"
               "Create NT Device \\Device\\Tarnveil\n"
               "Tarnveil - IoCreateSymbolicLink success \\DosDevices\\Tarnveil\n"
               "Tarnveil DriverEntry return 0\n";
    }
};

void Tell(const std::vector<std::string>& texts)
{
    fputs("<", stderr);
    for (const std::string& text : texts)
    {
        fputs(text.c_str(), stderr);
    }
    fputs(">\n", stderr);
}

MachineOptions Modelling(const SystemModel& system)
{
    MachineOptions options;
    options.System = system;
    return options;
}

// Tells what the load printed; the exit code tells whether it succeeded.
[[noreturn]] void LoadAndTell(const SystemModel& system, std::initializer_list<WideView> missing)
{
    Machine machine(Modelling(system));
    for (WideView name : missing)
    {
        HideSystemRoutine(name);
    }
    const NTSTATUS status = machine.LoadDriver(Image::Native);
    Tell(DebugPrints());
    std::_Exit(status == STATUS_SUCCESS && !PoolZeroingNative ? 0 : 1);
}

TEST_P(MissingRoutines, AllOfThemArePrintedAndTheLoadSucceeds)
{
    EXPECT_EXIT(LoadAndTell(GetParam(),
                    {L"ZwQueryInformationProcess", L"ZwQuerySystemInformation", L"NtQuerySystemInformation"}),
        ExitedWithCode(0), HasSubstr("<" + EntryPrints(std::string(NoProcessQuery) + NoSystemQuery) + ">"));
}

TEST_P(MissingRoutines, EachIsPrintedAlone)
{
    EXPECT_EXIT(LoadAndTell(GetParam(), {L"ZwQueryInformationProcess", L"NtQuerySystemInformation"}), ExitedWithCode(0),
        HasSubstr("<" + EntryPrints(NoProcessQuery) + ">"));
    EXPECT_EXIT(LoadAndTell(GetParam(), {L"ZwQuerySystemInformation", L"NtQuerySystemInformation"}), ExitedWithCode(0),
        HasSubstr("<" + EntryPrints(NoSystemQuery) + ">"));
}

TEST_P(MissingRoutines, WithoutThePoolQuestionTheDriverZeroesItself)
{
    EXPECT_EXIT(LoadAndTell(GetParam(), {L"NtQuerySystemInformation"}), ExitedWithCode(0),
        HasSubstr("<" + EntryPrints("") + ">"));
}

// Each call looks again; what is found then stays found.
[[noreturn]] void QueryBeforeAndAfterTheyAppear(const SystemModel& system)
{
    Machine machine(Modelling(system));
    Program app = machine.StartProcess(L"C:\\Apps\\Editor.exe");
    const HANDLE current = reinterpret_cast<HANDLE>(LONG_PTR{-1});
    PUNICODE_STRING name = nullptr;
    PSYSTEM_PROCESS_INFORMATION processes = nullptr;
    auto asApp = [&] { return app.As([&] { return QueryInformationProcess(current, &name); }); };
    HideSystemRoutine(L"ZwQueryInformationProcess");
    HideSystemRoutine(L"ZwQuerySystemInformation");
    bool asExpected = asApp() == STATUS_INSUFFICIENT_RESOURCES && name == nullptr &&
                      QuerySystemInformation(&processes) == STATUS_INSUFFICIENT_RESOURCES && processes == nullptr &&
                      asApp() == STATUS_INSUFFICIENT_RESOURCES;
    InitializeSystemRoutines();
    ShowAllSystemRoutines();
    asExpected = asExpected && asApp() == STATUS_SUCCESS && name != nullptr &&
                 QuerySystemInformation(&processes) == STATUS_SUCCESS && processes != nullptr;
    HideSystemRoutine(L"ZwQueryInformationProcess");
    HideSystemRoutine(L"ZwQuerySystemInformation");
    asExpected = asExpected && ResolveProcessQuery() == STATUS_SUCCESS && ResolveSystemQuery() == STATUS_SUCCESS;
    Tell(DebugPrints());
    std::_Exit(asExpected ? 0 : 1);
}

TEST_P(MissingRoutines, AreLookedUpAgainWhenTheyAreNeeded)
{
    EXPECT_EXIT(QueryBeforeAndAfterTheyAppear(GetParam()), ExitedWithCode(0),
        HasSubstr(
            std::string("<") + NoProcessQuery + NoSystemQuery + NoProcessQuery + NoProcessQuery + NoSystemQuery + ">"));
}

TEST_P(MissingRoutines, SettingWithoutTheProcessListIsNotAdded)
{
    EXPECT_EXIT(
        {
            Machine machine(Modelling(GetParam()));
            HideSystemRoutine(L"ZwQuerySystemInformation");
            bool asExpected = machine.LoadDriver(Image::Native) == STATUS_SUCCESS;
            Program agent = machine.StartProcess(L"C:\\Agent.exe");
            machine.ClearDebugPrints();
            asExpected = asExpected && agent.AddProcess(L"C:\\a.exe").Status == STATUS_INSUFFICIENT_RESOURCES;
            const UNICODE_STRING path = Counted(L"C:\\a.exe");
            ULONG id = 0;
            asExpected = asExpected && !FindSetting(ProcessNames, &path, &id);
            // Exclusions need no list.
            asExpected = asExpected && agent.AddExclusion(L"C:\\b.exe").Status == STATUS_SUCCESS;
            Tell(DebugPrints());
            std::_Exit(asExpected ? 0 : 1);
        },
        ExitedWithCode(0),
        HasSubstr(std::string("<Tarnveil.sys: [IDMan] IssueId = 0\n") + NoSystemQuery +
                  "Tarnveil - QuerySystemInformation error c000009a\n"
                  "Tarnveil.sys: [IDMan] ReleaseId = 0\n"
                  "Tarnveil - IOCTL_ADD_PROCESS: 'C:\\a.exe', id(0)\n"
                  "Tarnveil.sys: [IDMan] ReuseId = 0\n"
                  "Tarnveil - IOCTL_ADD_EXC_PROCESS: 'C:\\b.exe', id(0)\n>"));
}

INSTANTIATE_TEST_SUITE_P(OnEverySystem, MissingRoutines, testing::Values(Windows7(), Windows8(), Windows10()),
    [](const auto& system)
    {
        return "Version" + std::to_string(system.param.MajorVersion) + "_" + std::to_string(system.param.MinorVersion);
    });
}
