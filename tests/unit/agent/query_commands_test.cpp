// Questions from the command line.
#include "tests/unit/agent/tarnctl_fixture.h"

namespace tarnctl_test
{
namespace
{
class TarnctlQueries : public TarnctlTest
{
protected:
    void SetUp() override
    {
        TarnctlTest::SetUp();
        ASSERT_EQ(program_.AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
    }
};

TEST_F(TarnctlQueries, WhoIsUnderTheSandbox)
{
    const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    const std::string inside = std::to_string(editor.ProcessId());
    const std::string outside = std::to_string(program_.ProcessId());
    EXPECT_EQ(Output({"under-sandbox", inside}), "yes\n");
    EXPECT_EQ(Output({"under-sandbox", outside}), "no\n");
    EXPECT_EQ(Output({"under-sandbox", inside, "--json"}), "{\"pid\":" + inside + ",\"underSandbox\":true}\n");
    EXPECT_EQ(Output({"under-sandbox", "--json", outside}), "{\"pid\":" + outside + ",\"underSandbox\":false}\n");
}

TEST_F(TarnctlQueries, NobodyIsUnderTheSandbox)
{
    EXPECT_EQ(Output({"pids"}), "");
    EXPECT_EQ(Output({"pids", "--json"}), "{\"pids\":[]}\n");
    EXPECT_EQ(Output({"status"}), "driver: reachable\nprocesses under the sandbox: 0\n");
    EXPECT_EQ(Output({"status", "--json"}),
              "{\"reachable\":true,\"anyUnderSandbox\":false,\"count\":0,\"pids\":[]}\n");
}

TEST_F(TarnctlQueries, AListLongerThanTheFirstAttempt)
{
    std::string lines;
    std::string array;
    for (int i = 0; i < 150; ++i)
    {
        const std::string id = std::to_string(machine_.StartProcess(L"C:\\Apps\\Editor.exe").ProcessId());
        lines += id + "\n";
        array += (array.empty() ? "" : ",") + id;
    }
    EXPECT_EQ(Output({"pids"}), lines);
    EXPECT_EQ(Output({"pids", "--json"}), "{\"pids\":[" + array + "]}\n");
    EXPECT_EQ(Output({"status"}), "driver: reachable\nprocesses under the sandbox: 150\n");
    EXPECT_EQ(Output({"status", "--json"}),
              "{\"reachable\":true,\"anyUnderSandbox\":true,\"count\":150,\"pids\":[" + array + "]}\n");
}
}
}
