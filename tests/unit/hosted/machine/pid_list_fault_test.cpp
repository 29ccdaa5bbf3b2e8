// A request whose output buffer goes away under the driver's hands, in the middle of a list that it writes under a
// lock.
#include "hosted/ke/fast_mutex.h"
#include "hosted/ex/probe.h"
#include "hosted/io/device_control.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"
#include "hosted/machine/native_image.h"
#include "tests/support/machine.h"

#include <tarnveil/control.h>

#include <atomic>
#include <thread>

using namespace hosted;

namespace
{
constexpr ULONG WordsBeforeTheEnd = 2; // the count and one id still fit on the first page

class PidListFault : public testing::Test
{
protected:
    PidListFault()
    {
        EXPECT_EQ(STATUS_SUCCESS, machine_.LoadDriver(Image::Native));
        agent_ = machine_.StartProcess(L"C:\\Agent\\agent.exe");
        EXPECT_EQ(STATUS_SUCCESS, agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status);
        for (int i = 0; i < 3; ++i)
        {
            machine_.StartProcess(L"C:\\Apps\\Editor.exe");
        }
    }

    // Asks with a buffer of which the second page goes away between the driver's look and its writing.
    NTSTATUS AskWithVanishingPage()
    {
        return agent_->As(
            []
            {
                UserRegion region(2 * PAGE_SIZE);
                SetAfterProbe([&region] { region.ProtectFrom(PAGE_SIZE, true, false); });
                DeviceControlRequest request;
                request.Code = IOCTL_GET_PID_LIST_UNDER_SANDBOX;
                request.Output = region.Base() + PAGE_SIZE - WordsBeforeTheEnd * sizeof(ULONG);
                request.OutputLength = 64 * sizeof(ULONG);
                const NTSTATUS status = Send(request);
                SetAfterProbe({});
                return status;
            });
    }

    static NTSTATUS Send(const DeviceControlRequest& request)
    {
        OpenRequest open;
        open.Path = L"\\??\\Tarnveil";
        open.DesiredAccess = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE;
        PFILE_OBJECT device;
        const NTSTATUS opened = OpenFile(open, &device);
        if (!NT_SUCCESS(opened))
        {
            return opened;
        }
        IO_STATUS_BLOCK status{};
        DeviceControl(device, request, &status);
        CloseFile(device);
        EXPECT_EQ(0u, status.Information);
        return status.Status;
    }

    Machine machine_;
    std::optional<Program> agent_;
};

TEST_F(PidListFault, FailsAndLeavesTheLockFree)
{
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, AskWithVanishingPage());
    EXPECT_EQ(0, FastMutexesHeld());
    EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
    const PidListAnswer answer = agent_->PidList();
    EXPECT_EQ(STATUS_SUCCESS, answer.Status);
    EXPECT_EQ(3u, answer.Ids.size());
    // The list can still be changed, which takes the same lock.
    machine_.StartProcess(L"C:\\Apps\\Editor.exe").Exit();
    EXPECT_EQ(3u, agent_->PidList().Ids.size());
}

TEST_F(PidListFault, OthersGoOnMeanwhile)
{
    std::atomic<bool> done = false;
    std::thread other(
        [this, &done]
        {
            do
            {
                EXPECT_EQ(3u, agent_->PidList().Ids.size());
            } while (!done);
        });
    for (int round = 0; round < 50; ++round)
    {
        EXPECT_EQ(STATUS_ACCESS_VIOLATION, AskWithVanishingPage());
    }
    done = true;
    other.join();
}
}
