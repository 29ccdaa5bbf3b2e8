// Real programs under the driver's eyes.
#include "live/processes/process_tracker.h"

#include "hosted/machine/disk_access.h"
#include "hosted/machine/process_create.h"
#include "tests/scenario/driver_under_test.h"
#include "tests/support/machine.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/live/processes/process_actor.h"

#include <gmock/gmock.h>

using namespace hosted;

namespace
{
class DriverAndProgramsTest : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(STATUS_SUCCESS, machine_.LoadDriver(scenario_test::DriverUnderTest()));
        InstallImage(AgentImage);
        ProcessParameters parameters;
        parameters.ImagePath = L"\\??\\" + WideString(AgentImage);
        parameters.Id = reinterpret_cast<HANDLE>(ULONG_PTR{0x500000}); // no program of the host system has it
        agent_ = machine_.StartProcess(parameters);
        tracker_ = std::make_unique<ProcessTracker>(TrackerOptions{.ImageName = Name, .UseConnector = GetParam()});
        if (GetParam() && !tracker_->ConnectorInUse())
        {
            GTEST_SKIP() << "the process connector is not to be had here";
        }
    }

    void TearDown() override { tracker_.reset(); }

    static WideString Name(const std::string& path)
    {
        return L"\\Device\\HarddiskVolume1\\Apps\\" + Widen(path.substr(path.rfind('/') + 1));
    }

    // A copy of the actor that the driver knows as that file in C:\Apps.
    std::string Install(const std::string& name)
    {
        InstallImage(L"C:\\Apps\\" + Widen(name));
        const std::string path = folder_.Path(name);
        std::filesystem::copy_file(TARNVEIL_PROCESS_ACTOR, path);
        return path;
    }

    // As a request of the program's finds it.
    bool IsUnder(pid_t pid)
    {
        Process* process = tracker_->ProcessOfThread(pid);
        EXPECT_NE(nullptr, process);
        if (process == nullptr)
        {
            return false;
        }
        DereferenceObject(process);
        return static_cast<bool>(agent_.IsUnderSandbox(static_cast<ULONG>(pid)));
    }

    static constexpr WCHAR AgentImage[] = L"C:\\Agent\\agent.exe";

    TemporaryFolder folder_;
    Machine machine_;
    Program agent_{nullptr};
    std::unique_ptr<ProcessTracker> tracker_;
};

INSTANTIATE_TEST_SUITE_P(
    Live, DriverAndProgramsTest, testing::Bool(), [](const auto& info) { return info.param ? "Connector" : "Proc"; });

TEST_P(DriverAndProgramsTest, WhatAMonitoredParentStartsIsUnderTheSandbox)
{
    const std::string launcher = Install("launcher");
    const std::string editor = Install("editor");
    ProcessActor other(editor);
    ASSERT_EQ(STATUS_SUCCESS, agent_.AddParentProcess(L"C:\\Apps\\launcher").Status);
    ProcessActor actor(launcher);
    EXPECT_TRUE(IsUnder(actor.Id()));
    const pid_t child = actor.AskId("fork");
    EXPECT_TRUE(IsUnder(child)) << "runs the launcher's image";
    EXPECT_EQ(std::to_string(child), actor.Ask("child exec " + editor));
    EXPECT_TRUE(IsUnder(child));
    const pid_t grandchild = actor.AskId("child fork");
    EXPECT_TRUE(IsUnder(grandchild));
    EXPECT_THAT(agent_.PidList().Ids, testing::UnorderedElementsAre(child, grandchild));
    EXPECT_FALSE(IsUnder(other.Id()));
    EXPECT_FALSE(IsUnder(getpid()));
    // Another program in the launcher's place is no launcher.
    EXPECT_EQ(std::to_string(actor.Id()), actor.Ask("exec " + editor));
    EXPECT_FALSE(IsUnder(actor.Id()));
    EXPECT_TRUE(IsUnder(child));
}

TEST_P(DriverAndProgramsTest, WhatRunsAlreadyIsFound)
{
    const std::string launcher = Install("launcher");
    const std::string editor = Install("editor");
    ProcessActor actor(launcher);
    const pid_t child = actor.AskId("fork");
    EXPECT_EQ(std::to_string(child), actor.Ask("child exec " + editor));
    ProcessActor other(editor);
    tracker_->BringUpToDate();
    EXPECT_FALSE(IsUnder(child));
    // A setting for programs that run already is compared with device paths.
    ASSERT_EQ(STATUS_SUCCESS, agent_.AddParentProcess(L"C:\\Apps\\launcher").Status);
    EXPECT_TRUE(IsUnder(actor.Id()));
    EXPECT_TRUE(IsUnder(child));
    EXPECT_FALSE(IsUnder(other.Id()));
    ASSERT_EQ(STATUS_SUCCESS, agent_.AddProcess(L"C:\\Apps\\editor").Status);
    EXPECT_TRUE(IsUnder(other.Id()));
}
}
