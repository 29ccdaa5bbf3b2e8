// Opens and writes off the ordinary road: paging files, buffers that vanish, a key of a wrong length.
#include "hosted/ke/user_access.h"
#include "tests/scenario/cipher_scenario.h"

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

TEST(CipherLimits, AKeyOfAWrongLengthLetsTheDataThroughUnchanged)
{
    CipherScenario scenario({.Key = Pattern(20)});
    const std::string plain = Pattern(5000);
    auto file = scenario.Editor->Create(Plan);
    ASSERT_EQ(file.Status(), STATUS_SUCCESS) << "a length is set, so the sandbox is open";
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan), plain);
    auto direct = scenario.Editor->OpenNonCached(Plan);
    EXPECT_EQ(direct.Write(Pattern(512, 7)), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan), Pattern(512, 7) + plain.substr(512));
    direct.Close();
    file.Close();
    scenario.Computer.FlushAll();
    scenario.Computer.Remount(L"C:");
    EXPECT_EQ(scenario.Editor->Open(Plan).ReadAll(), Pattern(512, 7) + plain.substr(512));
}
}
}
