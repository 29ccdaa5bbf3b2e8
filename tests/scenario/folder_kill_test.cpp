// A system that is killed at any moment: what a program had flushed before can still be read through the driver.
#include "hosted/fs/file_system.h"
#include "hosted/fs/folder/stored_changes.h"
#include "tests/scenario/cipher_scenario.h"
#include "tests/support/temporary_folder.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cipher_test
{
namespace
{
constexpr WideView Path = L"C:\\Sandbox\\plan.txt";

// One thing that the program does.
struct Step
{
    enum Kind
    {
        Write,
        SetEnd,
        Flush,
        LazyWrite,
        FlushPart, // the cache's pages from Offset on
        Direct,    // past the cache, whole sectors
    } What;
    LONGLONG Offset = 0;
    ULONG Length = 0;
};
using Script = std::vector<Step>;

std::string BytesOf(size_t step, ULONG length)
{
    return Pattern(length, static_cast<unsigned>(step) * 131 + 7);
}

// What the file is after so many steps, and what every kill from then on has to leave of it.
struct Expected
{
    std::string Now;
    std::string Flushed;
    std::vector<bool> Kept; // of Flushed: not written or cut off since

    void Apply(const Step& step, size_t number)
    {
        switch (step.What)
        {
        case Step::Write:
        case Step::Direct:
            Now.resize(std::max<size_t>(Now.size(), step.Offset + step.Length));
            Now.replace(step.Offset, step.Length, BytesOf(number, step.Length));
            for (size_t i = step.Offset; i < Kept.size() && i < static_cast<size_t>(step.Offset) + step.Length; ++i)
            {
                Kept[i] = false;
            }
            break;
        case Step::SetEnd:
            Now.resize(step.Offset);
            for (size_t i = step.Offset; i < Kept.size(); ++i)
            {
                Kept[i] = false;
            }
            break;
        case Step::Flush:
            break;
        default:
            break;
        }
    }
    void Flush()
    {
        Flushed = Now;
        Kept.assign(Now.size(), true);
    }
};

// What the process that is to die shares with the one that looks.
struct Shared
{
    size_t Begun;   // steps
    size_t Changes; // to stored bytes
    size_t KillAt;
    bool Halfway; // a write of several pages ends behind its first
};
Shared* shared = nullptr;

void Count(const StoredChange& change)
{
    if (++shared->Changes != shared->KillAt)
    {
        return;
    }
    const LONGLONG pageEnd = (change.Offset / 4096 + 1) * 4096;
    if (shared->Halfway && change.Data != nullptr && change.Offset + static_cast<LONGLONG>(change.Length) > pageEnd)
    {
        if (pwrite(change.File, change.Data, static_cast<size_t>(pageEnd - change.Offset), change.Offset) < 0)
        {
            _exit(9);
        }
    }
    kill(getpid(), SIGKILL);
}

class FolderKill : public testing::Test
{
protected:
    FolderKill()
    {
        void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = static_cast<Shared*>(memory);
        ScenarioOptions options;
        VolumeOptions volume;
        volume.Folder = folder_.Path();
        options.Machine.Volumes = {volume};
        scenario_.emplace(std::move(options));
    }
    ~FolderKill() override
    {
        scenario_.reset();
        munmap(shared, sizeof(Shared));
    }

    // In the process that dies.
    [[noreturn]] void Play(const Script& script)
    {
        {
            auto file = scenario_->Editor->Open(Path);
            auto direct = scenario_->Editor->OpenNonCached(Path);
            bool done = file.IsOpen() && direct.IsOpen();
            for (size_t i = 0; i < script.size() && done; ++i)
            {
                const Step& step = script[i];
                const std::string bytes = BytesOf(i, step.Length);
                shared->Begun = i + 1;
                switch (step.What)
                {
                case Step::Write:
                    done = file.Write(bytes, step.Offset) == STATUS_SUCCESS;
                    break;
                case Step::Direct:
                    done = direct.Write(bytes, step.Offset) == STATUS_SUCCESS;
                    break;
                case Step::SetEnd:
                    done = file.SetEndOfFile(step.Offset) == STATUS_SUCCESS;
                    break;
                case Step::Flush:
                    done = file.Flush() == STATUS_SUCCESS;
                    break;
                case Step::LazyWrite:
                    scenario_->Computer.FlushAll();
                    break;
                case Step::FlushPart:
                    done = CacheFlush(CacheMapOf(file.Object()), step.Offset, 1) == STATUS_SUCCESS;
                    break;
                }
            }
            if (!done)
            {
                _exit(8);
            }
        }
        shared->Begun = script.size() + 1;
        scenario_->Computer.FlushAll();
        _exit(0);
    }

    // Starts from a file with these contents on disk. False when the script ran to its end.
    bool PlayAndKill(const Script& script, const std::string& before, size_t killAt, bool halfway)
    {
        {
            auto file = scenario_->Editor->Create(Path);
            EXPECT_EQ(file.Write(before), STATUS_SUCCESS);
            EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
        }
        scenario_->Computer.Remount(L"C:");
        *shared = {.Begun = 0, .Changes = 0, .KillAt = killAt, .Halfway = halfway};
        const pid_t child = fork();
        if (child == 0)
        {
            SetStoredChangeWatcher(Count);
            Play(script);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (WIFEXITED(status))
        {
            EXPECT_EQ(WEXITSTATUS(status), 0);
            return false;
        }
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
        return true;
    }

    void Check(const Script& script, const std::string& before, bool killed, const std::string& where)
    {
        scenario_->Computer.Remount(L"C:");
        Expected expected;
        expected.Now = before;
        expected.Flush();
        const size_t begun = shared->Begun;
        for (size_t i = 0; i < std::min(begun, script.size()); ++i)
        {
            expected.Apply(script[i], i);
            // The step under way when the process was killed has not succeeded.
            if (script[i].What == Step::Flush && (i + 1 < begun || !killed))
            {
                expected.Flush();
            }
        }
        auto file = scenario_->Editor->Open(Path);
        const std::string found = file.ReadAll();
        if (!killed)
        {
            EXPECT_TRUE(found == expected.Now) << where;
            return;
        }
        for (size_t i = 0; i < expected.Kept.size(); ++i)
        {
            if (expected.Kept[i] && (i >= found.size() || found[i] != expected.Flushed[i]))
            {
                ADD_FAILURE() << where << ": byte " << i << " of " << expected.Flushed.size() << " was flushed, "
                              << (i >= found.size() ? "and is gone" : "and reads as another");
                return;
            }
        }
        const std::string journal = folder_.Path(".tarnveil-journal");
        EXPECT_TRUE(!std::filesystem::exists(journal) || std::filesystem::is_empty(journal)) << where;
    }

    void KillEverywhere(const Script& script, const std::string& before, const std::string& name)
    {
        size_t points = 0;
        for (bool halfway : {false, true})
        {
            bool killed = true;
            for (size_t at = 1; killed && !HasFailure(); ++at)
            {
                killed = PlayAndKill(script, before, at, halfway);
                Check(script, before, killed, name + ", change " + std::to_string(at) + (halfway ? " halfway" : ""));
                points = at;
            }
        }
        // A script that changes nothing would prove nothing.
        EXPECT_GT(points, 1u) << name;
    }

    const TemporaryFolder folder_;
    std::optional<CipherScenario> scenario_;
};

TEST_F(FolderKill, EndsThatMoveByHand)
{
    const std::string before = Pattern(10003, 99);
    const struct
    {
        const char* Name;
        Script Steps;
    } scripts[] = {
        {"shrink inside a block", {{Step::SetEnd, 5003}, {Step::Flush}}},
        {"shrink twice",
            {{Step::SetEnd, 5003}, {Step::SetEnd, 4999}, {Step::Flush}, {Step::SetEnd, 4998}, {Step::Flush}}},
        {"shrink and grow", {{Step::SetEnd, 5003}, {Step::SetEnd, 9001}, {Step::Flush}}},
        {"shrink, write out, grow",
            {{Step::SetEnd, 5003}, {Step::LazyWrite}, {Step::SetEnd, 9001}, {Step::LazyWrite}, {Step::Flush}}},
        {"append", {{Step::Write, 10003, 7}, {Step::Flush}, {Step::Write, 10010, 30}, {Step::LazyWrite},
                       {Step::Write, 10040, 9000}, {Step::Flush}}},
        {"grow by far", {{Step::SetEnd, 600001}, {Step::Write, 300000, 5000}, {Step::FlushPart, 300000},
                            {Step::LazyWrite}, {Step::Flush}}},
        {"grow to whole pages", {{Step::SetEnd, 5}, {Step::Flush}, {Step::SetEnd, 65536}, {Step::LazyWrite}}},
        {"past the cache behind the end", {{Step::Direct, 20480, 1024}, {Step::SetEnd, 20500}, {Step::Flush},
                                              {Step::Direct, 512, 512}, {Step::Flush}}},
        {"empty and fill", {{Step::SetEnd, 0}, {Step::Write, 0, 33}, {Step::Flush}, {Step::SetEnd, 32},
                               {Step::SetEnd, 31}, {Step::Flush}}},
        {"overwrite and cut",
            {{Step::Write, 4990, 40}, {Step::SetEnd, 5011}, {Step::LazyWrite}, {Step::Write, 5005, 3}, {Step::Flush}}},
    };
    for (const auto& each : scripts)
    {
        KillEverywhere(each.Steps, before, each.Name);
    }
}

TEST_F(FolderKill, EndsThatMoveAtRandom)
{
    const char* given = std::getenv("TARNVEIL_SEED");
    const unsigned seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::cout << "seed " << seed << ": TARNVEIL_SEED=" << seed
              << " scenario_tests --gtest_filter=FolderKill.EndsThatMoveAtRandom" << std::endl;
    std::mt19937 random(seed);
    const auto below = [&](unsigned bound) { return static_cast<LONGLONG>(random() % bound); };
    for (int run = 0; run < 6 && !HasFailure(); ++run)
    {
        const std::string before = Pattern(1 + static_cast<size_t>(below(12000)), 99);
        Expected size;
        size.Now = before;
        Script script;
        for (int i = 0; i < 10; ++i)
        {
            // Near the end of a page more often than elsewhere.
            const LONGLONG place = below(3) == 0 ? 4096 * below(4) + below(40) : below(14000);
            switch (below(7))
            {
            case 0:
            case 1:
                script.push_back({Step::Write, place, static_cast<ULONG>(1 + below(below(2) == 0 ? 30 : 6000))});
                break;
            case 2:
            case 3:
                script.push_back({Step::SetEnd, place});
                break;
            case 4:
                script.push_back({Step::Flush});
                break;
            case 5:
                script.push_back({Step::LazyWrite});
                break;
            default:
                // Of a write across the end only what lies before it is enciphered.
                const LONGLONG whole = static_cast<LONGLONG>(size.Now.size()) / 512 * 512;
                const LONGLONG behind = (static_cast<LONGLONG>(size.Now.size()) + 511) / 512 * 512 + 512 * below(3);
                const bool within = whole > 512 && below(3) != 0;
                script.push_back(
                    {Step::Direct, within ? below(static_cast<unsigned>(whole / 512)) * 512 : behind, 512});
            }
            size.Apply(script.back(), script.size() - 1);
        }
        KillEverywhere(script, before, "run " + std::to_string(run));
    }
}
}
}
