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

    // What is told of the host, which a program of the machine itself is not told.
    std::string LiveLines() const
    {
        return GetParam() == Way::InMachine
                   ? ""
                   : "system: 6.1\ndriver image: native\n"
                     "volume S: \\Device\\HarddiskVolume2 is /srv/store, mounted at /mnt/safe\n"
                     "volume C: \\Device\\HarddiskVolume1 is /\n";
    }
    std::string LiveJson() const
    {
        return GetParam() == Way::InMachine
                   ? ""
                   : "\"system\":\"6.1\",\"driver\":\"native\",\"volumes\":["
                     "{\"drive\":\"S:\",\"device\":\"\\\\Device\\\\HarddiskVolume2\",\"folder\":\"/srv/store\","
                     "\"mountPoint\":\"/mnt/safe\"},"
                     "{\"drive\":\"C:\",\"device\":\"\\\\Device\\\\HarddiskVolume1\",\"folder\":\"/\","
                     "\"mountPoint\":\"\"}],";
    }
};

INSTANTIATE_TEST_SUITE_P(Ways, TarnctlQueries, AllWays, WayName);

TEST_P(TarnctlQueries, WhoIsUnderTheSandbox)
{
    const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    const std::string inside = std::to_string(editor.ProcessId());
    const std::string outside = std::to_string(program_.ProcessId());
    EXPECT_EQ(Output({"under-sandbox", inside}), "yes\n");
    EXPECT_EQ(Output({"under-sandbox", outside}), "no\n");
    EXPECT_EQ(Output({"under-sandbox", inside, "--json"}), "{\"pid\":" + inside + ",\"underSandbox\":true}\n");
    EXPECT_EQ(Output({"under-sandbox", "--json", outside}), "{\"pid\":" + outside + ",\"underSandbox\":false}\n");
}

TEST_P(TarnctlQueries, NobodyIsUnderTheSandbox)
{
    EXPECT_EQ(Output({"pids"}), "");
    EXPECT_EQ(Output({"pids", "--json"}), "{\"pids\":[]}\n");
    EXPECT_EQ(Output({"status"}), "driver: reachable\n" + LiveLines() + "processes under the sandbox: 0\n");
    EXPECT_EQ(Output({"status", "--json"}),
        "{\"reachable\":true," + LiveJson() + "\"anyUnderSandbox\":false,\"count\":0,\"pids\":[]}\n");
}

TEST_P(TarnctlQueries, AListLongerThanTheFirstAttempt)
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
    EXPECT_EQ(Output({"status"}), "driver: reachable\n" + LiveLines() + "processes under the sandbox: 150\n");
    EXPECT_EQ(Output({"status", "--json"}),
        "{\"reachable\":true," + LiveJson() + "\"anyUnderSandbox\":true,\"count\":150,\"pids\":[" + array + "]}\n");
}
}
}
