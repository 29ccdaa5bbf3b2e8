#include "driver/filter/block_cipher.h"

#include "tests/unit/driver/filter/cipher_vectors.h"

#include <gtest/gtest.h>

#include <cstring>

namespace cipher_test
{
namespace
{
const UCHAR* Bytes(const std::string& text)
{
    return reinterpret_cast<const UCHAR*>(text.data());
}

class BlockCipher : public testing::TestWithParam<CipherFamily>
{
protected:
    void SetUp() override
    {
        if (GetParam() == CipherFamily::Instructions && !ProcessorHasAesInstructions())
        {
            GTEST_SKIP() << "the processor has no AES instructions";
        }
        SelectCipherFamily(GetParam());
    }
    void TearDown() override { SelectCipherFamily(CipherFamily::Portable); }

    static std::string Encipher(const std::string& key, const std::string& plain)
    {
        AES_KEY schedule{};
        EXPECT_TRUE(MakeEncryptionSchedule(Bytes(key), static_cast<ULONG>(key.size()), &schedule));
        EXPECT_TRUE(IsUsable(schedule));
        std::string output(plain.size(), '\0');
        EncipherBlocks(schedule, Bytes(plain), reinterpret_cast<UCHAR*>(output.data()), plain.size());
        return output;
    }
    static std::string Decipher(const std::string& key, const std::string& cipher)
    {
        AES_KEY schedule{};
        EXPECT_TRUE(MakeDecryptionSchedule(Bytes(key), static_cast<ULONG>(key.size()), &schedule));
        EXPECT_TRUE(IsUsable(schedule));
        std::string output(cipher.size(), '\0');
        DecipherBlocks(schedule, Bytes(cipher), reinterpret_cast<UCHAR*>(output.data()), cipher.size());
        return output;
    }
};

TEST_P(BlockCipher, GivesThePublishedBlocks)
{
    for (const Vector& vector : Fips197)
    {
        const std::string key = FromHex(vector.Key);
        EXPECT_EQ(Encipher(key, FromHex(vector.Plain)), FromHex(vector.Cipher)) << key.size();
        EXPECT_EQ(Decipher(key, FromHex(vector.Cipher)), FromHex(vector.Plain)) << key.size();
    }
}

TEST_P(BlockCipher, GivesThePublishedCodeBookSpans)
{
    for (const Vector& vector : Sp80038a)
    {
        const std::string key = FromHex(vector.Key);
        EXPECT_EQ(Encipher(key, FromHex(vector.Plain)), FromHex(vector.Cipher)) << key.size();
        EXPECT_EQ(Decipher(key, FromHex(vector.Cipher)), FromHex(vector.Plain)) << key.size();
    }
}

TEST_P(BlockCipher, AgreesWithEvpForEveryCountOfBlocks)
{
    for (const size_t keyBytes : {16, 24, 32})
    {
        const std::string key = Pattern(keyBytes, 7);
        for (size_t blocks = 1; blocks <= 40; ++blocks)
        {
            const std::string plain = Pattern(blocks * 16, static_cast<unsigned>(blocks));
            const std::string cipher = Crypt(key, plain, true);
            EXPECT_EQ(Encipher(key, plain), cipher) << keyBytes << " " << blocks;
            EXPECT_EQ(Decipher(key, cipher), plain) << keyBytes << " " << blocks;
        }
    }
}

TEST_P(BlockCipher, EnciphersEachBlockOnItsOwn)
{
    const std::string key = Pattern(16);
    const std::string block = Pattern(16, 9);
    const std::string once = Encipher(key, block);
    EXPECT_EQ(Encipher(key, block + block + block), once + once + once);
}

TEST_P(BlockCipher, WorksInPlace)
{
    const std::string key = Pattern(32);
    const std::string plain = Pattern(160, 3);
    AES_KEY encryption{};
    AES_KEY decryption{};
    ASSERT_TRUE(MakeEncryptionSchedule(Bytes(key), 32, &encryption));
    ASSERT_TRUE(MakeDecryptionSchedule(Bytes(key), 32, &decryption));
    std::string bytes = plain;
    auto* at = reinterpret_cast<UCHAR*>(bytes.data());
    EncipherBlocks(encryption, at, at, bytes.size());
    EXPECT_EQ(bytes, Crypt(key, plain, true));
    DecipherBlocks(decryption, at, at, bytes.size());
    EXPECT_EQ(bytes, plain);
}

TEST_P(BlockCipher, NoBytesTouchNothing)
{
    const std::string key = Pattern(16);
    AES_KEY schedule{};
    ASSERT_TRUE(MakeEncryptionSchedule(Bytes(key), 16, &schedule));
    UCHAR output = 0x5a;
    EncipherBlocks(schedule, &output, &output, 0);
    EXPECT_EQ(output, 0x5a);
}

TEST_P(BlockCipher, RefusesOtherKeyLengthsAndLeavesTheScheduleAlone)
{
    const std::string key = Pattern(64);
    for (const ULONG keyBytes : {0u, 1u, 15u, 17u, 19u, 23u, 25u, 31u, 33u, 64u, 0xffffffffu})
    {
        AES_KEY schedule;
        std::memset(&schedule, 0, sizeof(schedule));
        AES_KEY untouched;
        std::memset(&untouched, 0, sizeof(untouched));
        EXPECT_FALSE(MakeEncryptionSchedule(Bytes(key), keyBytes, &schedule)) << keyBytes;
        EXPECT_FALSE(MakeDecryptionSchedule(Bytes(key), keyBytes, &schedule)) << keyBytes;
        EXPECT_FALSE(IsUsable(schedule)) << keyBytes;
        EXPECT_EQ(std::memcmp(&schedule, &untouched, sizeof(schedule)), 0) << keyBytes;
    }
}

INSTANTIATE_TEST_SUITE_P(Families, BlockCipher, testing::Values(CipherFamily::Portable, CipherFamily::Instructions),
    [](const auto& info) { return info.param == CipherFamily::Portable ? "Portable" : "Instructions"; });
}
}
