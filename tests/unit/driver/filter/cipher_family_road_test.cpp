// The processor's AES instructions against the portable routines, over the whole road.

#include "driver/filter/block_cipher.h"
#include "tests/scenario/cipher_scenario.h"

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";

// What one family wrote through the whole road, the other reads back.
TEST(CipherFamilyRoad, BothFamiliesOfRoutinesWriteAndReadTheSame)
{
    if (!ProcessorHasAesInstructions())
    {
        GTEST_SKIP() << "the processor has no AES instructions";
    }
    constexpr CipherFamily Families[] = {CipherFamily::Portable, CipherFamily::Instructions};
    for (const size_t keyBytes : {16, 24, 32})
    {
        CipherScenario scenario({.Key = Pattern(keyBytes, 8)});
        for (const size_t bytes : {1, 15, 16, 127, 129, 4095, 4096, 4097, 10005})
        {
            const std::string plain = Pattern(bytes, static_cast<unsigned>(bytes));
            for (const int writer : {0, 1})
            {
                SelectCipherFamily(Families[writer]);
                auto file = scenario.Editor->Create(Plan);
                EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
                EXPECT_EQ(file.Flush(), STATUS_SUCCESS);
                file.Close();
                EXPECT_EQ(scenario.Computer.Disk(Plan), scenario.OnDisk(plain)) << keyBytes << " " << bytes;
                scenario.Computer.FlushAll();
                scenario.Computer.Remount(L"C:");
                SelectCipherFamily(Families[1 - writer]);
                EXPECT_EQ(scenario.Editor->Open(Plan).ReadAll(), plain) << keyBytes << " " << bytes;
                scenario.Computer.Remount(L"C:");
            }
        }
    }
}
}
}
