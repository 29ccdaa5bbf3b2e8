// Everything at once: programs inside and outside the sandbox, processes that come and go, an agent that sets, asks and
// listens. Nothing may be lost, and nothing may be left behind.
#include "common/mutex.h"
#include "tests/stress/agent_worker.h"
#include "tests/unit/driver/filter/cipher_vectors.h"

namespace stress_test
{
namespace
{
// Reads and writes a file of its own, which is kept beyond the thread for a last look.
Round FileWork(std::optional<FileWorker>& worker, const Program& program, WideView path, Random& random)
{
    worker.emplace(program, path, random);
    return [&worker]
    {
        for (int i = 0; i < 10; ++i)
        {
            worker->Step();
        }
    };
}

struct WorkedFile
{
    const char* Name;
    WideView Path;
    WideView Image;
    bool Enciphered;
    std::optional<FileWorker> Worker = {};
};

// What the disk holds for a file; a block that was never written is zero there.
bool IsOnDisk(const StressMachine& machine, const WorkedFile& file)
{
    const std::string& plain = file.Worker->Content();
    const std::string disk = machine.Computer.Disk(file.Path);
    if (!file.Enciphered || disk.size() != plain.size())
    {
        return disk == plain;
    }
    const std::string expected = cipher_test::OnDisk(machine.Key, StressMachine::Mask, plain);
    const std::string zeros(16, '\0');
    for (size_t i = 0; i < disk.size(); i += 16)
    {
        const bool unwritten = disk.compare(i, 16, zeros) == 0 && plain.compare(i, 16, zeros) == 0;
        if (!unwritten && disk.compare(i, 16, expected, i, 16) != 0)
        {
            return false;
        }
    }
    return true;
}

void CheckAtRest(StressMachine& machine, std::vector<WorkedFile>& files)
{
    for (WorkedFile& file : files)
    {
        EXPECT_TRUE(file.Worker->WasOpen()) << file.Name;
        file.Worker->Close();
    }
    machine.Computer.FlushAll();
    for (const WorkedFile& file : files)
    {
        EXPECT_TRUE(IsOnDisk(machine, file)) << file.Name;
    }
}

TEST(DriverStress, ProgramsAgentAndProcessesAtOnce)
{
    StressMachine machine;
    StressRun run;
    std::vector<WorkedFile> files;
    files.push_back({"editor", L"C:\\Sandbox\\one.bin", L"C:\\Apps\\Editor.exe", true});
    files.push_back({"another editor", L"C:\\Sandbox\\two.bin", L"C:\\Apps\\Editor.exe", true});
    files.push_back({"editor outside", L"C:\\Open\\three.bin", L"C:\\Apps\\Editor.exe", false});
    files.push_back({"other program", L"C:\\Open\\four.bin", L"C:\\other.exe", false});
    for (WorkedFile& file : files)
    {
        const Program program = machine.Computer.StartProcess(file.Image);
        run.Add(
            file.Name, [&file, program](Random& random) { return FileWork(file.Worker, program, file.Path, random); });
    }
    run.Add("processes", [&](Random& random) { return machine.ProcessWork(random); });
    run.Add("outsider", [&](Random& random) { return machine.OutsiderWork(random, true); });
    run.Add("settings", [&](Random& random) { return SettingWork(machine.Agent, random); });
    run.Add("more settings", [&](Random& random) { return SettingWork(machine.Agent, random); });
    run.Add("stop and start", [&](Random& random) { return StopWork(machine, random); });
    run.Add("log", [&](Random& random) { return LogWork(machine.Agent, random); });
    run.Add("lazy writer", [&](Random&) -> Round { return [&] { machine.Computer.FlushAll(); }; });
    run.Run();
    CheckAtRest(machine, files);
    EXPECT_EQ(machine.Computer.UnloadDriver(), STATUS_SUCCESS);
}

// The filter and the process notifications come and go under the work. Requests wait outside, since they would be
// refused without the driver; unload waits for those inside by itself, which another test shows.
TEST(DriverStress, LoadedAndUnloadedWhileWorkGoesOn)
{
    StressMachine machine;
    StressRun run;
    std::vector<WorkedFile> files;
    files.push_back({"editor outside", L"C:\\Open\\one.bin", L"C:\\Apps\\Editor.exe", false});
    files.push_back({"other program", L"C:\\Open\\two.bin", L"C:\\other.exe", false});
    for (WorkedFile& file : files)
    {
        const Program program = machine.Computer.StartProcess(file.Image);
        run.Add(
            file.Name, [&file, program](Random& random) { return FileWork(file.Worker, program, file.Path, random); });
    }
    // With and without the driver, so what they hold is anybody's guess.
    const Program editor = machine.Computer.StartProcess(L"C:\\Apps\\Editor.exe");
    run.Add("editor inside",
        [&](Random& random) -> Round
        {
            return [&random, &editor]
            {
                ProgramFile file = editor.OpenOrCreate(L"C:\\Sandbox\\mixed.bin");
                EXPECT_TRUE(file.Status() == STATUS_SUCCESS || file.Status() == STATUS_ACCESS_DENIED);
                if (file.IsOpen())
                {
                    EXPECT_EQ(file.Write(random.Bytes(1 + random.Below(9000))), STATUS_SUCCESS);
                    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
                    EXPECT_EQ(file.SetEndOfFile(static_cast<LONGLONG>(random.Below(9000))), STATUS_SUCCESS);
                    file.ReadAll();
                }
            };
        });
    run.Add("processes", [&](Random& random) { return machine.ProcessWork(random); });
    run.Add("outsider", [&](Random& random) { return machine.OutsiderWork(random, false); });
    // Requests share it; who takes the driver away has it alone.
    common::FairSharedMutex gate;
    run.Add("settings",
        [&](Random& random) -> Round
        {
            return [&gate, work = Round(SettingWork(machine.Agent, random))]
            {
                std::shared_lock request(gate);
                work();
            };
        });
    run.Add("log",
        [&](Random& random) -> Round
        {
            return [&gate, work = Round(LogWork(machine.Agent, random))]
            {
                std::shared_lock request(gate);
                work();
            };
        });
    run.Add("load and unload",
        [&](Random&) -> Round
        {
            return [&]
            {
                std::lock_guard alone(gate);
                EXPECT_EQ(machine.Computer.UnloadDriver(), STATUS_SUCCESS);
                EXPECT_EQ(machine.Computer.LoadDriver(Image::Native), STATUS_SUCCESS);
                machine.AddSettings();
            };
        });
    run.Run();
    CheckAtRest(machine, files);
}
}
}
