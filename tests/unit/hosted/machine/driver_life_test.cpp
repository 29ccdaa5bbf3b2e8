// Loading and unloading on a machine.
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/native_image.h"
#include "hosted/ps/process_notify.h"
#include "tests/support/machine.h"
#include "tests/unit/hosted/machine/fake_driver.h"

#include <gmock/gmock.h>

using namespace hosted;
using testing::HasSubstr;

namespace
{
class DriverLifeTest : public testing::Test
{
protected:
    DriverLifeTest() { fake_driver::Reset(); }
};

TEST_F(DriverLifeTest, LoadsAndUnloads)
{
    Machine machine;
    EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
    EXPECT_TRUE(machine.DriverLoaded());
    ASSERT_NE(nullptr, machine.Driver());
    EXPECT_EQ("\\FileSystem\\Tarnveil", Narrow(View(machine.Driver()->DriverName)));
    EXPECT_DEATH(machine.LoadDriver(fake_driver::Entry), "DRIVER_LOADED_TWICE");
    EXPECT_EQ(STATUS_SUCCESS, machine.UnloadDriver());
    EXPECT_FALSE(machine.DriverLoaded());
    EXPECT_EQ(nullptr, machine.Driver());
    EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
}

TEST_F(DriverLifeTest, TheEndOfTheMachineUnloads)
{
    {
        Machine machine;
        machine.LoadDriver(fake_driver::Entry);
        machine.StartProcess(L"C:\\Apps\\Editor.exe");
    }
    EXPECT_EQ(0u, RegisteredNotifyRoutines());
}

TEST_F(DriverLifeTest, ADeviceHeldOpenOutlivesTheUnload)
{
    Machine machine;
    machine.LoadDriver(fake_driver::Entry);
    const Program agent = machine.StartProcess(L"C:\\Agent\\agent.exe");
    ProgramFile device = agent.Open(L"\\??\\Tarnveil", FILE_READ_DATA | SYNCHRONIZE);
    ASSERT_EQ(STATUS_SUCCESS, device.Status());
    EXPECT_EQ(STATUS_SUCCESS, machine.UnloadDriver());
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, agent.Open(L"\\??\\Tarnveil", SYNCHRONIZE).Status());
    EXPECT_EQ(STATUS_SUCCESS, device.Close());
}

TEST_F(DriverLifeTest, AFailedLoadLeavesEverything)
{
    fake_driver::behaviour.FailEntryAtTheEnd = true;
    fake_driver::behaviour.ForgetPool = true;
    {
        Machine machine;
        EXPECT_EQ(STATUS_UNSUCCESSFUL, machine.LoadDriver(fake_driver::Entry));
        EXPECT_FALSE(machine.DriverLoaded());
        const std::string leaks = machine.Leaks();
        EXPECT_THAT(leaks, HasSubstr("Fake: 1 allocation"));
        EXPECT_THAT(leaks, HasSubstr("Driver x1"));
        EXPECT_THAT(leaks, HasSubstr("process notify routines: 1"));
        machine.AbandonDriver();
        EXPECT_EQ(0u, RegisteredNotifyRoutines());
        EXPECT_THAT(machine.Leaks(), testing::Not(HasSubstr("Driver x1")));
    }
    // What remains of one machine is no leak of the next.
    fake_driver::Reset();
    {
        Machine machine;
        EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
    }
    fake_driver::FreeForgotten();
}

TEST_F(DriverLifeTest, ALoadedDriverWithoutItsFilterIsUnloadedByForce)
{
    fake_driver::behaviour.TakeFilterBack = true;
    {
        Machine machine;
        EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, machine.UnloadWithoutFilter());
        EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
        EXPECT_FALSE(NT_SUCCESS(machine.UnloadDriver()));
        EXPECT_TRUE(machine.DriverLoaded());
        EXPECT_EQ(STATUS_SUCCESS, machine.UnloadWithoutFilter());
        EXPECT_FALSE(machine.DriverLoaded());
        EXPECT_EQ(0u, RegisteredNotifyRoutines());
        // The end of the machine does the same.
        EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
    }
    fake_driver::behaviour.TakeFilterBack = false;
    Machine machine;
    EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
    EXPECT_FALSE(NT_SUCCESS(machine.UnloadWithoutFilter()));
    EXPECT_TRUE(machine.DriverLoaded());
}

TEST_F(DriverLifeTest, TheRealDriverWhoseFilteringDoesNotStart)
{
    Machine machine;
    FailRoutine("FltStartFiltering");
    EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(Image::Native));
    ResetFailures();
    EXPECT_FALSE(NT_SUCCESS(machine.UnloadDriver()));
    EXPECT_EQ(STATUS_SUCCESS, machine.UnloadWithoutFilter());
    EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(Image::Native));
}

TEST_F(DriverLifeTest, ALoadWithoutAFilterIsAbandonedByForce)
{
    Machine machine;
    FailRoutine("FltRegisterFilter");
    EXPECT_FALSE(NT_SUCCESS(machine.LoadDriver(fake_driver::Entry)));
    ResetFailures();
    machine.AbandonDriver();
    EXPECT_EQ(STATUS_SUCCESS, machine.LoadDriver(fake_driver::Entry));
}
}
