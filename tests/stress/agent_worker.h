// Agents that set, ask and listen.
#pragma once

#include "tests/stress/stress_machine.h"

namespace stress_test
{
// Adds and deletes settings of its own, and asks for what is there.
inline Round SettingWork(const Program& agent, Random& random)
{
    return [&agent, &random, held = std::vector<ULONG>()]() mutable
    {
        const WideString path = L"C:\\Apps\\" + WideString(1, static_cast<WCHAR>(L'a' + random.Below(8))) + L".exe";
        ControlAnswer added;
        switch (random.Below(8))
        {
        case 0:
            added = agent.AddParentProcess(path);
            break;
        case 1:
            added = agent.AddProcess(path);
            break;
        case 2:
            added = agent.AddExclusion(path);
            break;
        case 3:
        {
            const PidListAnswer list = agent.PidList(1 + random.Below(300));
            EXPECT_TRUE(list.Status == STATUS_SUCCESS || list.Status == STATUS_BUFFER_TOO_SMALL);
            EXPECT_TRUE(list.Status != STATUS_SUCCESS || list.Count == list.Ids.size());
            return;
        }
        case 4:
            EXPECT_EQ(agent.IsUnderSandbox(static_cast<ULONG>(random.Below(2000))).Status, STATUS_SUCCESS);
            return;
        case 5:
            EXPECT_EQ(agent.IsExistUnderSandbox().Status, STATUS_SUCCESS);
            return;
        case 6:
            EXPECT_EQ(agent.SetCryptKey("another key byte", 1), STATUS_SUCCESS) << "refused, and told as success";
            EXPECT_EQ(agent.SetEncryption(1), STATUS_SUCCESS);
            return;
        default:
            if (!held.empty())
            {
                const size_t i = random.Below(held.size());
                EXPECT_EQ(agent.DelProcess(held[i]), STATUS_SUCCESS);
                held.erase(held.begin() + static_cast<ptrdiff_t>(i));
            }
            return;
        }
        EXPECT_EQ(added.Status, STATUS_SUCCESS);
        held.push_back(added.Value);
    };
}

// Stops and starts; what the programs are under the sandbox by is set again at once.
inline Round StopWork(const StressMachine& machine, Random& random)
{
    return [&machine, &random]
    {
        if (random.OneIn(3))
        {
            EXPECT_EQ(machine.Agent.StopDriver(), STATUS_SUCCESS);
        }
        EXPECT_EQ(machine.Agent.StartDriver(), STATUS_SUCCESS);
        machine.AddSettings();
    };
}

// Registers, drains what came, now and then stops to listen.
inline Round LogWork(const Program& agent, Random& random)
{
    return [&agent, &random, event = agent.CreateEvent()]
    {
        if (random.OneIn(4))
        {
            EXPECT_EQ(agent.StartLogging(event, random.OneIn(2) ? 0x4e : 0x0a), STATUS_SUCCESS);
        }
        const LogAnswer answer = agent.GetLogData(1 + static_cast<ULONG>(random.Below(20)));
        EXPECT_TRUE(answer.Status == STATUS_SUCCESS || answer.Status == STATUS_NO_MORE_ENTRIES);
        EXPECT_EQ(answer.Status == STATUS_SUCCESS, !answer.Records.empty());
        for (const LogRecord& record : answer.Records)
        {
            EXPECT_NE(record.Level & 0x4eu, 0u);
            EXPECT_TRUE(record.Message.starts_with("IRP = ") || record.Message.starts_with("PROC = "))
                << record.Message;
            EXPECT_NE(record.ProcessName, "");
        }
        if (random.OneIn(50))
        {
            EXPECT_EQ(agent.StopLogging(), STATUS_SUCCESS);
        }
    };
}
}
