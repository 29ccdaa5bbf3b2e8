// Opens and writes off the ordinary road: paging files, buffers that vanish, a key of a wrong length.
#include "hosted/ke/user_access.h"
#include "tests/scenario/cipher_scenario.h"

#include <tarnveil/control.h>

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";

// Whether a file is a paging file shows in what the file system made of it, so not before it is open.
TEST(CipherLimits, APagingFileIsJudgedLikeAnyFileWhileItIsBeingOpened)
{
    CipherScenario scenario;
    OpenRequest request;
    request.Path = L"\\??\\C:\\Sandbox\\pagefile.sys";
    request.DesiredAccess = Program::ReadWriteAccess;
    request.Disposition = FILE_OPEN_IF;
    request.StackFlags = SL_OPEN_PAGING_FILE;
    EXPECT_EQ(scenario.Agent->OpenWith(request).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(scenario.Editor->OpenWith(request).Status(), STATUS_SUCCESS);
}

TEST(CipherLimits, ABufferThatVanishesFailsTheWriteAndLeavesTheDisk)
{
    CipherScenario scenario;
    const std::string plain = Pattern(1024);
    auto file = scenario.Editor->Create(Plan);
    ASSERT_EQ(file.Write(plain), STATUS_SUCCESS);
    ASSERT_EQ(file.Flush(), STATUS_SUCCESS);
    auto direct = scenario.Editor->OpenNonCached(Plan);
    UserRegion region(PAGE_SIZE);
    scenario.Computer.ClearDebugPrints();
    scenario.Editor->As(
        [&]
        {
            IO_STATUS_BLOCK status{};
            region.Protect(false, false);
            EXPECT_EQ(WriteFile(direct.Object(), 0, region.Base(), 512, &status), STATUS_ACCESS_VIOLATION);
            region.Protect(true, true);
            // The second sector is not there.
            EXPECT_EQ(WriteFile(direct.Object(), 0, region.Tail(512), 1024, &status), STATUS_ACCESS_VIOLATION);
        });
    EXPECT_EQ(scenario.Computer.DebugPrints(), std::vector<std::string>(2, "PreWrite - free\n"));
    // How far the second write came is the file system's affair.
    EXPECT_EQ(scenario.Computer.Disk(Plan).substr(512), scenario.OnDisk(plain).substr(512));
}

// At load nothing is read behind such a key, so the driver knows no sandbox folder; and no other key can be set.
TEST(CipherLimits, AfterAKeyOfAWrongLengthThereIsNoSandbox)
{
    CipherScenario scenario({.Key = Pattern(20)});
    ProgramEvent event = scenario.Agent->CreateEvent();
    ASSERT_EQ(scenario.Agent->StartLogging(
                  event, TARNVEIL_LEVEL_ALLOWED_OPEN | TARNVEIL_LEVEL_DENIED_OPEN | TARNVEIL_LEVEL_REFUSED_KEY),
        STATUS_SUCCESS);
    const std::string plain = Pattern(5000);
    {
        auto file = scenario.Editor->Create(Plan);
        ASSERT_EQ(file.Status(), STATUS_SUCCESS);
        EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
        EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    }
    EXPECT_EQ(scenario.Computer.Disk(Plan), plain);
    EXPECT_EQ(scenario.Agent->Open(Plan).ReadAll(), plain) << "a program outside is let in, and reads it";
    EXPECT_EQ(scenario.Agent->DrainLog(), std::vector<LogRecord>{}) << "no open was one of the sandbox's";

    EXPECT_EQ(scenario.Agent->SetCryptKey(Pattern(16), ScenarioMask), STATUS_SUCCESS);
    const auto records = scenario.Agent->DrainLog();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Level, ULONG{TARNVEIL_LEVEL_REFUSED_KEY});
    EXPECT_EQ(scenario.Editor->Create(L"C:\\Sandbox\\later.txt").Write(plain), STATUS_SUCCESS);
    scenario.Computer.FlushAll();
    EXPECT_EQ(scenario.Computer.Disk(L"C:\\Sandbox\\later.txt"), plain);
}
}
}
