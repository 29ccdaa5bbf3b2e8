// Protections added and removed, stored, dumped and asked for by several threads at once, while processes come and go.

#include "hosted/rtl/debug_print.h"
#include "tests/scenario/driver_under_test.h"
#include "tests/support/machine.h"

#include <atomic>
#include <gmock/gmock.h>
#include <set>
#include <thread>

namespace protection_threads_test
{
namespace
{
using namespace hosted;

constexpr unsigned Threads = 3;
constexpr unsigned Rounds = 25;

WideString PathOf(unsigned thread, unsigned round)
{
    return L"C:\\Data\\t" + Widen(std::to_string(thread)) + L"\\" + Widen(std::to_string(round)) + L".txt";
}

class ProtectionThreads : public testing::Test
{
protected:
    void SetUp() override
    {
        LimitDebugPrints(100);
        machine_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Bay\\S");
        const std::vector<UCHAR> key(17, 0x11);
        machine_.Registry().SetBinary(Machine::ServiceKey, L"SandboxCryptKey", key);
        machine_.Registry().SetDword(Machine::ProductKey, L"DebugLogLevel", 0x4100);
        // "ABCDEF0@" in base64, by 16-bit characters.
        const WideView text = L"QQBCAEMARABFAEYAMABAAA==";
        type_.assign(
            reinterpret_cast<const UCHAR*>(text.data()), reinterpret_cast<const UCHAR*>(text.data() + text.size()));
        ASSERT_EQ(machine_.PutOnDisk(L"C:\\Data\\shared.txt", "s"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.PutOnDisk(L"C:\\Bay\\S\\plan.txt", "s"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.PutOnDisk(L"C:\\Apps\\Editor.exe", "image"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
        reader_ = machine_.CreateMailslot(L"\\Device\\mailslot\\OrvaneSandbox_Dbg");
        agent_.emplace(machine_.StartProcess(L"C:\\Agent\\agent.exe"));
        event_.emplace(agent_->CreateEvent());
        ASSERT_EQ(agent_->StartLogging(*event_, 0xffffffff), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        event_.reset();
        LimitDebugPrints(0);
    }

    // The strings of the stored value, without the empty one at its end.
    std::multiset<std::string> Stored()
    {
        std::multiset<std::string> strings;
        const auto value = machine_.Registry().GetValue(Machine::ServiceKey, L"ProtectionFiles");
        if (!value)
        {
            return strings;
        }
        WideString text(value->Bytes.size() / sizeof(WCHAR), 0);
        __builtin_memcpy(text.data(), value->Bytes.data(), text.size() * sizeof(WCHAR));
        for (size_t start = 0, end = 0; (end = text.find(WCHAR{0}, start)) != WideString::npos && end != start;
            start = end + 1)
        {
            strings.insert(Narrow(WideView(text).substr(start, end - start)));
        }
        return strings;
    }

    Machine machine_;
    std::vector<UCHAR> type_;
    std::unique_ptr<MailslotReader> reader_;
    std::optional<Program> agent_;
    std::optional<ProgramEvent> event_;
};

TEST_F(ProtectionThreads, NoPathAndNoIdIsLost)
{
    std::vector<std::vector<ULONG>> kept(Threads);
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < Threads; ++thread)
    {
        threads.emplace_back(
            [&, thread]
            {
                for (unsigned round = 0; round < Rounds; ++round)
                {
                    const ControlAnswer own = agent_->AddFileProtection(1000 + thread, PathOf(thread, round));
                    EXPECT_EQ(own.Status, STATUS_SUCCESS);
                    const ControlAnswer shared =
                        agent_->AddFileProtection(10000 + thread * 1000 + round, L"C:\\Data\\shared.txt");
                    EXPECT_EQ(shared.Status, STATUS_SUCCESS);
                    EXPECT_EQ(agent_->DelFileProtection(shared.Value), STATUS_SUCCESS);
                    kept[thread].push_back(own.Value);
                    EXPECT_EQ(agent_->OutputCurrentParam(), STATUS_SUCCESS);
                    while (reader_->Read())
                    {
                    }
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    std::set<ULONG> ids;
    for (unsigned thread = 0; thread < Threads; ++thread)
    {
        for (unsigned round = 0; round < Rounds; ++round)
        {
            EXPECT_TRUE(ids.insert(kept[thread][round]).second) << "an id was given out twice";
            // Each is still that of its process.
            EXPECT_EQ(agent_->AddFileProtection(1000 + thread, PathOf(thread, round)), Added(kept[thread][round]));
        }
    }
    const auto stored = Stored();
    for (unsigned thread = 0; thread < Threads; ++thread)
    {
        for (unsigned round = 0; round < Rounds; ++round)
        {
            EXPECT_EQ(
                stored.count("\\Device\\HarddiskVolume1" + Narrow(WideView(PathOf(thread, round)).substr(2))), 1u);
        }
    }
    // Two requests at once may both find the shared path missing.
    const size_t shared = stored.count("\\Device\\HarddiskVolume1\\Data\\shared.txt");
    EXPECT_GE(shared, 1u);
    EXPECT_LE(shared, Threads);
    EXPECT_EQ(stored.size(), Threads * Rounds + shared);
}

TEST_F(ProtectionThreads, EverythingAtOnce)
{
    ASSERT_EQ(agent_->AddFileProtection(agent_->ProcessId(), L"C:\\Data\\shared.txt").Status, STATUS_SUCCESS);
    std::atomic<unsigned> running = 5;
    std::vector<std::thread> threads;
    const auto start = [&](auto&& body)
    {
        threads.emplace_back(
            [&running, body]
            {
                for (unsigned round = 0; round < Rounds; ++round)
                {
                    body(round);
                }
                --running;
            });
    };
    // An allowed process that stays is allowed at every moment, a stranger at none.
    start([this](unsigned) { EXPECT_EQ(agent_->Open(L"C:\\Data\\shared.txt").Status(), STATUS_SUCCESS); });
    start(
        [this](unsigned round)
        {
            const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
            EXPECT_EQ(editor.Open(L"C:\\Data\\shared.txt").Status(), STATUS_ACCESS_DENIED);
            EXPECT_EQ(agent_->AddFileProtection(editor.ProcessId(), PathOf(9, round)).Status, STATUS_SUCCESS);
            editor.Open(L"C:\\Bay\\S\\plan.txt");
            editor.Exit();
        });
    start(
        [this](unsigned round)
        {
            const ControlAnswer added = agent_->AddFileProtection(4, PathOf(8, round));
            EXPECT_EQ(added.Status, STATUS_SUCCESS);
            EXPECT_EQ(agent_->DelFileProtection(added.Value), STATUS_SUCCESS);
        });
    start(
        [this](unsigned round)
        {
            EXPECT_EQ(agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
            if (round == Rounds / 2)
            {
                machine_.Registry().SetBinary(Machine::ProductKey, L"InstallerType", type_);
            }
            EXPECT_EQ(agent_->StartDriver(), STATUS_SUCCESS);
            EXPECT_EQ(agent_->StopDriver(), STATUS_SUCCESS);
        });
    start([this](unsigned) { EXPECT_EQ(agent_->OutputCurrentParam(), STATUS_SUCCESS); });
    while (running != 0)
    {
        if (!reader_->Read())
        {
            std::this_thread::yield();
        }
        agent_->DrainLog();
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    // All the paths are there, and nobody is allowed any more but the agent.
    EXPECT_EQ(Stored().size(), 1 + 2 * Rounds);
    while (reader_->Read())
    {
    }
    EXPECT_EQ(agent_->OutputCurrentParam(), STATUS_SUCCESS);
    size_t protections = 0;
    size_t allowed = 0;
    while (const auto line = reader_->ReadText())
    {
        const std::string text = Narrow(*line);
        protections += text.find("Protection : FilePath") != std::string::npos;
        allowed += text.find("Protection : PID") != std::string::npos;
    }
    EXPECT_EQ(protections, 1 + 2 * Rounds);
    EXPECT_EQ(allowed, 1u);
}
}
}
