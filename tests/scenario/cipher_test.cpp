#include "tests/scenario/cipher_scenario.h"

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";

MachineOptions WithSector(ULONG bytes)
{
    MachineOptions options;
    options.Volumes[0].SectorSize = bytes;
    return options;
}

TEST(Cipher, PublishedVectorsLieOnTheDiskForEveryKeyLength)
{
    for (const Vector& vector : Sp80038a)
    {
        CipherScenario scenario({.Key = FromHex(vector.Key)});
        auto file = scenario.Editor->Create(Plan);
        ASSERT_EQ(file.Status(), STATUS_SUCCESS);
        EXPECT_EQ(file.Write(FromHex(vector.Plain)), STATUS_SUCCESS);
        EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
        EXPECT_EQ(scenario.Computer.Disk(Plan), FromHex(vector.Cipher));
    }
    for (const Vector& vector : Fips197)
    {
        CipherScenario scenario({.Key = FromHex(vector.Key)});
        auto file = scenario.Editor->Create(Plan);
        EXPECT_EQ(file.Write(FromHex(vector.Plain)), STATUS_SUCCESS);
        file.Close();
        scenario.Computer.FlushAll();
        EXPECT_EQ(scenario.Computer.Disk(Plan), FromHex(vector.Cipher));
    }
}

TEST(Cipher, TheTrailingBytesAreMasked)
{
    for (const size_t keyBytes : {16, 24, 32})
    {
        CipherScenario scenario({.Key = Pattern(keyBytes, 8)});
        for (const size_t bytes : {1, 15, 16, 17, 100, 4095, 4096, 4097, 10000})
        {
            const std::string plain = Pattern(bytes);
            auto file = scenario.Editor->Create(Plan);
            EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
            EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
            EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk(plain)) << keyBytes << " " << bytes;
        }
    }
}

TEST(Cipher, A192BitKeyOfTheRegistryHasAMaskOfZero)
{
    CipherScenario scenario({.Key = Pattern(24, 8)});
    auto file = scenario.Editor->Create(Plan);
    const std::string plain = Pattern(20);
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan).substr(16), plain.substr(16)) << "not the value's last byte";
}

TEST(Cipher, WhatWasWrittenIsReadAfterARemount)
{
    CipherScenario scenario;
    const std::string plain = Pattern(12345);
    {
        auto file = scenario.Editor->Create(Plan);
        EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    }
    scenario.Computer.FlushAll();
    scenario.Computer.Remount(L"C:");
    auto file = scenario.Editor->Open(Plan);
    ASSERT_EQ(file.Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.ReadAll(), plain);
}

TEST(Cipher, ANonCachedReadReturnsTheCipherText)
{
    CipherScenario scenario;
    const std::string plain = Pattern(1024);
    auto file = scenario.Editor->Create(Plan);
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    auto direct = scenario.Editor->OpenNonCached(Plan);
    EXPECT_EQ(direct.Read(0, 1024), scenario.OnDisk(plain));
    EXPECT_EQ(file.Read(0, 1024), plain);
}

TEST(Cipher, ANonCachedWriteIsEnciphered)
{
    CipherScenario scenario;
    auto file = scenario.Editor->Create(Plan);
    EXPECT_EQ(file.Write(std::string(2048, 'x')), STATUS_SUCCESS);
    auto direct = scenario.Editor->OpenNonCached(Plan);
    const std::string plain = Pattern(512);
    EXPECT_EQ(direct.Write(plain, 512), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan).substr(512, 512), scenario.OnDisk(plain));
    EXPECT_EQ(file.Read(512, 512), plain);
}

TEST(Cipher, ANonCachedWriteAcrossTheOldEndLosesThePartBehindIt)
{
    CipherScenario scenario;
    auto file = scenario.Editor->Create(Plan);
    const std::string old = Pattern(600, 2);
    EXPECT_EQ(file.Write(old), STATUS_SUCCESS);
    auto direct = scenario.Editor->OpenNonCached(Plan);
    const std::string plain = Pattern(512, 3);
    EXPECT_EQ(direct.Write(plain, 512), STATUS_SUCCESS);
    EXPECT_EQ(file.Size(), 1024);
    const std::string disk = scenario.Computer.Disk(Plan);
    ASSERT_EQ(disk.size(), 1024u);
    EXPECT_EQ(disk.substr(512, 80), scenario.OnDisk(plain.substr(0, 80)));
    EXPECT_EQ(disk.substr(600), std::string(424, '\0'));
    EXPECT_EQ(file.Read(608, 416), std::string(416, '\0'));
    EXPECT_EQ(file.Read(0, 512), old.substr(0, 512));
}

TEST(Cipher, AShortNonCachedWriteInTheMiddleIsLengthenedToItsBlock)
{
    CipherScenario scenario({.Machine = WithSector(1)});
    auto file = scenario.Editor->Create(Plan);
    const std::string old = Pattern(5000, 2);
    EXPECT_EQ(file.Write(old), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    auto direct = scenario.Editor->OpenNonCached(Plan);
    const std::string plain = Pattern(100, 3);
    EXPECT_EQ(direct.Write(plain), STATUS_SUCCESS);
    EXPECT_EQ(direct.Information(), 112u) << "the file system's count goes up as it is";
    const std::string disk = scenario.Computer.Disk(Plan);
    ASSERT_EQ(disk.size(), 5000u);
    EXPECT_EQ(disk.substr(0, 96), scenario.OnDisk(plain.substr(0, 96)));
    EXPECT_EQ(disk.substr(112), scenario.OnDisk(old).substr(112));
    EXPECT_EQ(file.Read(0, 100), plain);
}

TEST(Cipher, AMappedWriteIsEnciphered)
{
    CipherScenario scenario;
    auto file = scenario.Editor->Create(Plan);
    EXPECT_EQ(file.SetEndOfFile(5000), STATUS_SUCCESS);
    auto view = file.MapView();
    const std::string plain = Pattern(5000);
    EXPECT_EQ(view.Write(plain), STATUS_SUCCESS);
    scenario.Computer.FlushAll();
    EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk(plain));
    EXPECT_EQ(view.Read(0, 5000), plain);
}

TEST(Cipher, TruncationAndExtensionKeepTheRest)
{
    CipherScenario scenario;
    auto file = scenario.Editor->Create(Plan);
    const std::string plain = Pattern(9000);
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(file.SetEndOfFile(4105), STATUS_SUCCESS);
    scenario.Computer.FlushAll();
    EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk(plain.substr(0, 4105)));
    EXPECT_EQ(file.SetEndOfFile(8200), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    file.Close();
    scenario.Computer.FlushAll();
    scenario.Computer.Remount(L"C:");
    auto again = scenario.Editor->Open(Plan);
    EXPECT_EQ(again.ReadAll(), plain.substr(0, 4105) + std::string(8200 - 4105, '\0'));
}

TEST(Cipher, WhatLiesOnTheDiskBeforeIsTakenForCipherText)
{
    CipherScenario scenario;
    const std::string plain = Pattern(100);
    ASSERT_EQ(scenario.Computer.PutOnDisk(Plan, scenario.OnDisk(plain)), STATUS_SUCCESS);
    scenario.Computer.FlushAll();
    scenario.Computer.Remount(L"C:");
    EXPECT_EQ(scenario.Editor->Open(Plan).ReadAll(), plain);
}

TEST(Cipher, AnAlternateStreamIsEncipheredToo)
{
    CipherScenario scenario;
    scenario.Editor->Create(Plan).Write("main");
    const std::string plain = Pattern(50);
    {
        auto stream = scenario.Editor->Create(L"C:\\Sandbox\\plan.txt:notes");
        ASSERT_EQ(stream.Status(), STATUS_SUCCESS);
        EXPECT_EQ(stream.Write(plain), STATUS_SUCCESS);
        EXPECT_EQ(stream.Flush(), STATUS_SUCCESS);
    }
    EXPECT_EQ(scenario.Computer.Disk(L"C:\\Sandbox\\plan.txt:notes"), scenario.OnDisk(plain));
}

TEST(Cipher, OutsideTheSandboxNothingIsEnciphered)
{
    CipherScenario scenario;
    auto file = scenario.Editor->Create(L"C:\\plan.txt");
    EXPECT_EQ(file.Write("attack at dawn"), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(L"C:\\plan.txt"), "attack at dawn");
}

TEST(Cipher, SwitchedOffNewOpensAreStoredInTheClear)
{
    CipherScenario scenario;
    EXPECT_EQ(scenario.Agent->SetEncryption(0), STATUS_SUCCESS);
    auto file = scenario.Editor->Create(Plan);
    ASSERT_EQ(file.Status(), STATUS_SUCCESS);
    EXPECT_EQ(file.Write("attack at dawn"), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan), "attack at dawn");
}

TEST(Cipher, SwitchingOffLeavesOpenStreamsEnciphered)
{
    CipherScenario scenario;
    auto file = scenario.Editor->Create(Plan);
    EXPECT_EQ(scenario.Agent->SetEncryption(0), STATUS_SUCCESS);
    EXPECT_EQ(file.Write("attack at dawn"), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk("attack at dawn"));
}

TEST(Cipher, AnAgentsKeyIsUsedWithItsOwnMask)
{
    CipherScenario scenario({.Key = ""});
    const std::string key = Pattern(24, 31);
    EXPECT_EQ(scenario.Agent->SetCryptKey(key, 0x33), STATUS_SUCCESS);
    auto file = scenario.Editor->Create(Plan);
    ASSERT_EQ(file.Status(), STATUS_SUCCESS);
    const std::string plain = Pattern(100);
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(scenario.Computer.Disk(Plan), OnDisk(key, 0x33, plain)) << "the last byte, unlike from the registry";
}

TEST(Cipher, UnwrittenBlocksReadAsZeros)
{
    CipherScenario scenario;
    ASSERT_EQ(scenario.Computer.PutOnDisk(Plan, std::string(8192, '\0')), STATUS_SUCCESS);
    scenario.Computer.FlushAll();
    scenario.Computer.Remount(L"C:");
    EXPECT_EQ(scenario.Editor->Open(Plan).ReadAll(), std::string(8192, '\0'));
}
}
}
