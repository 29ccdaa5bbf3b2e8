// A file system that leaves the pages at the old and the new end of file alone: the mask of the trailing bytes then
// stays where a whole block is expected, and the reverse, until something else rewrites the page.
#include "tests/scenario/cipher_scenario.h"

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";

ScenarioOptions Strict()
{
    ScenarioOptions options;
    options.Machine.Volumes[0].StrictEndOfFile = true;
    return options;
}

std::string Masked(std::string bytes)
{
    for (char& byte : bytes)
    {
        byte = static_cast<char>(byte ^ ScenarioMask);
    }
    return bytes;
}

// The file as a program finds it once nothing of it is cached.
std::string Reread(CipherScenario& scenario)
{
    scenario.Computer.FlushAll();
    scenario.Computer.Remount(L"C:");
    auto file = scenario.Editor->Open(Plan);
    EXPECT_EQ(file.Status(), STATUS_SUCCESS);
    return file.ReadAll();
}

// A file of that content on the disk, shrunk or extended to the size. What the program sees before it closes the file.
std::string Resize(CipherScenario& scenario, const std::string& plain, LONGLONG size)
{
    auto file = scenario.Editor->Create(Plan);
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk(plain));
    EXPECT_EQ(file.SetEndOfFile(size), STATUS_SUCCESS);
    return file.ReadAll();
}

TEST(StrictEndOfFile, AShrunkFileKeepsCipherTextWhereTheMaskIsExpected)
{
    CipherScenario scenario(Strict());
    const std::string plain = Pattern(100);
    EXPECT_EQ(Resize(scenario, plain, 50), plain.substr(0, 50)) << "the cache has it right";
    const std::string disk = scenario.OnDisk(plain).substr(0, 50);
    scenario.Computer.FlushAll();
    EXPECT_EQ(scenario.Computer.Disk(Plan), disk);
    EXPECT_EQ(Reread(scenario), plain.substr(0, 48) + Masked(disk.substr(48)));
}

TEST(StrictEndOfFile, AnExtendedFileKeepsTheMaskWhereABlockIsExpected)
{
    CipherScenario scenario(Strict());
    const std::string plain = Pattern(50);
    EXPECT_EQ(Resize(scenario, plain, 100), plain + std::string(50, '\0'));
    const std::string disk = scenario.OnDisk(plain) + std::string(50, '\0');
    scenario.Computer.FlushAll();
    EXPECT_EQ(scenario.Computer.Disk(Plan), disk);
    const std::string garbage = Crypt(scenario.Key, disk.substr(48, 16), false);
    EXPECT_EQ(Reread(scenario), plain.substr(0, 48) + garbage + std::string(32, '\0') + Masked(std::string(4, '\0')));
}

TEST(StrictEndOfFile, BetweenWholeBlocksNothingIsLost)
{
    CipherScenario scenario(Strict());
    const std::string plain = Pattern(96);
    Resize(scenario, plain, 48);
    EXPECT_EQ(Reread(scenario), plain.substr(0, 48));
    Resize(scenario, plain.substr(0, 48), 96);
    EXPECT_EQ(Reread(scenario), plain.substr(0, 48) + std::string(48, '\0'));
}

TEST(StrictEndOfFile, TheNextWriteToThePageMakesItRight)
{
    for (const LONGLONG size : {50, 150})
    {
        CipherScenario scenario(Strict());
        std::string plain = Pattern(100);
        {
            auto file = scenario.Editor->Create(Plan);
            EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
            EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
            EXPECT_EQ(file.SetEndOfFile(size), STATUS_SUCCESS);
            EXPECT_EQ(file.Write("x", 3), STATUS_SUCCESS);
        }
        plain.resize(static_cast<size_t>(size), '\0');
        plain[3] = 'x';
        EXPECT_EQ(Reread(scenario), plain) << size;
        EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk(plain)) << size;
    }
}

TEST(StrictEndOfFile, ACachedWriteThatExtendsRewritesThePageWithTheOldEnd)
{
    CipherScenario scenario(Strict());
    const std::string plain = Pattern(300);
    {
        auto file = scenario.Editor->Create(Plan);
        EXPECT_EQ(file.Write(plain.substr(0, 50)), STATUS_SUCCESS);
        EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
        EXPECT_EQ(file.Write(plain.substr(50), 50), STATUS_SUCCESS);
    }
    EXPECT_EQ(Reread(scenario), plain);
}
}
}
