// A machine with a sandbox folder and a key, and the work that several threads do on it.
#pragma once

#include "hosted/cm/registry.h"
#include "hosted/machine/native_image.h"
#include "hosted/rtl/debug_print.h"
#include "tests/stress/file_worker.h"
#include "tests/support/machine.h"

#include <tarnveil/control.h>

namespace stress_test
{
class StressMachine
{
public:
    StressMachine()
    {
        // Nobody reads them here.
        LimitDebugPrints(1000);
        const std::string value = Key + static_cast<char>(Mask);
        SystemRegistry().Reset();
        SystemRegistry().SetBinary(
            Machine::ServiceKey, L"SandboxCryptKey", {reinterpret_cast<const UCHAR*>(value.data()), value.size()});
        SystemRegistry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        EXPECT_EQ(Computer.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS);
        EXPECT_EQ(Computer.MakeFolder(L"C:\\Open"), STATUS_SUCCESS);
        EXPECT_EQ(Computer.LoadDriver(Image::Native), STATUS_SUCCESS);
        AddSettings();
    }
    ~StressMachine() { LimitDebugPrints(0); }

    // The settings that the programs here are under the sandbox by.
    void AddSettings() const
    {
        EXPECT_EQ(Agent.AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        EXPECT_EQ(Agent.AddParentProcess(L"C:\\Apps\\Launcher.exe").Status, STATUS_SUCCESS);
        EXPECT_EQ(Agent.AddExclusion(L"C:\\Apps\\Excluded.exe").Status, STATUS_SUCCESS);
    }

    // Parents, children and excluded children that start, look into the sandbox and exit.
    Round ProcessWork(Random& random)
    {
        return [this, &random]
        {
            const Program parent = Computer.StartProcess(random.OneIn(2) ? L"C:\\Apps\\Launcher.exe" : L"C:\\x.exe");
            const Program child = parent.Start(random.OneIn(4) ? L"C:\\Apps\\Excluded.exe" : L"C:\\c.exe");
            const Program grandchild = child.Start(L"C:\\Apps\\g.exe");
            for (const Program* program : {&parent, &child, &grandchild})
            {
                const NTSTATUS status = program->OpenOrCreate(L"C:\\Sandbox\\shared.txt").Status();
                EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_ACCESS_DENIED) << std::hex << status;
            }
            const Program* order[] = {&parent, &child, &grandchild};
            std::rotate(order, order + random.Below(3), order + 3);
            for (const Program* program : order)
            {
                program->Exit();
            }
        };
    }

    // A program that is never under the sandbox; `denied` says whether the driver is there all the time.
    Round OutsiderWork(Random& random, bool denied)
    {
        const Program program = Computer.StartProcess(L"C:\\outsider.exe");
        return [this, &random, denied, program]
        {
            const NTSTATUS status = program.OpenOrCreate(L"C:\\Sandbox\\shared.txt").Status();
            EXPECT_TRUE(status == STATUS_ACCESS_DENIED || (!denied && status == STATUS_SUCCESS)) << std::hex << status;
            if (random.OneIn(20))
            {
                Computer.FlushAll();
            }
        };
    }

    static constexpr UCHAR Mask = 0x5c;
    const std::string Key = "sixteen key byte";
    Machine Computer;
    const Program Agent = Computer.StartProcess(L"C:\\Agent\\agent.exe");
};
}
