// What a judged open of a protected path tells the debugger while the frequent traces are on.

#include "driver/core/global_state.h"
#include "hosted/machine/native_image.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

namespace protection_trace_test
{
namespace
{
using namespace hosted;

TEST(ProtectionTrace, AllowedAndDeniedOpensAreTracedOnDemand)
{
    Machine machine;
    ASSERT_EQ(machine.PutOnDisk(L"C:\\Data\\a.txt", "a"), STATUS_SUCCESS);
    ASSERT_EQ(machine.LoadDriver(Image::Native), STATUS_SUCCESS);
    const Program agent = machine.StartProcess(L"C:\\agent.exe");
    const Program other = machine.StartProcess(L"C:\\other.exe");
    ASSERT_EQ(agent.AddFileProtection(agent.ProcessId(), L"C:\\Data\\a.txt").Status, STATUS_SUCCESS);
    const auto printsOf = [&](const Program& program, NTSTATUS status)
    {
        machine.ClearDebugPrints();
        EXPECT_EQ(program.Open(L"C:\\Data\\a.txt").Status(), status);
        return machine.DebugPrints();
    };
    EXPECT_THAT(printsOf(agent, STATUS_SUCCESS), testing::IsEmpty());
    EXPECT_THAT(printsOf(other, STATUS_ACCESS_DENIED), testing::IsEmpty());
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(
        printsOf(agent, STATUS_SUCCESS), testing::ElementsAre("Tarnveil - PID(" + std::to_string(agent.ProcessId()) +
                                                              ") IRP = CREATE Ope = PRE status = STATUS_SUCCESS path = "
                                                              "\\Device\\HarddiskVolume1\\Data\\a.txt\n"));
    EXPECT_THAT(printsOf(other, STATUS_ACCESS_DENIED),
        testing::ElementsAre("Tarnveil - PID(" + std::to_string(other.ProcessId()) +
                             ") IRP = CREATE Ope = PRE status = ACCESS_DENIED path = "
                             "\\Device\\HarddiskVolume1\\Data\\a.txt\n"));
    Global.VerboseTrace = FALSE;
}
}
}
