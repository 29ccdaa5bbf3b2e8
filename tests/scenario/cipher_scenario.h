// A machine with the driver loaded, a sandbox folder on it, one program under the sandbox and one that is not.
#pragma once

#include "hosted/cm/registry.h"
#include "tests/support/machine.h"
#include "tests/unit/driver/filter/cipher_vectors.h"
#include "tests/scenario/driver_under_test.h"

#include <span>

namespace cipher_test
{
using namespace hosted;

constexpr UCHAR ScenarioMask = 0x5c;

struct ScenarioOptions
{
    std::string Key = Pattern(16, 4711); // empty: none is stored
    MachineOptions Machine = {};
};

class CipherScenario
{
public:
    explicit CipherScenario(ScenarioOptions options = {}) : Key(options.Key), Computer(std::move(options.Machine))
    {
        SystemRegistry().Reset();
        std::string value = Key;
        if (!Key.empty())
        {
            value.push_back(static_cast<char>(ScenarioMask));
            SystemRegistry().SetBinary(
                Machine::ServiceKey, L"SandboxCryptKey", {reinterpret_cast<const UCHAR*>(value.data()), value.size()});
        }
        SystemRegistry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        EXPECT_EQ(Computer.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS);
        EXPECT_EQ(Computer.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
        Agent.emplace(Computer.StartProcess(L"C:\\Agent\\agent.exe"));
        EXPECT_EQ(Agent->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        Editor.emplace(Computer.StartProcess(L"C:\\Apps\\Editor.exe"));
        EXPECT_EQ(Agent->IsUnderSandbox(Editor->ProcessId()), Added(1));
    }

    // A 192-bit key from the registry is masked by the byte behind it, which reads as zero.
    UCHAR Mask() const { return Key.size() == 24 ? 0 : ScenarioMask; }
    std::string OnDisk(std::string_view plain) const { return cipher_test::OnDisk(Key, Mask(), plain); }

    std::string Key;
    Machine Computer;
    std::optional<Program> Agent;
    std::optional<Program> Editor;
};
}
