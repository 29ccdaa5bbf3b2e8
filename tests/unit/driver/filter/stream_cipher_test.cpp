#include "driver/filter/stream_cipher.h"

#include "tests/unit/driver/filter/cipher_vectors.h"

#include <gtest/gtest.h>

#include <cstring>

namespace cipher_test
{
namespace
{
constexpr UCHAR Mask = 0xa5;

class StreamCipher : public testing::Test
{
protected:
    void SetUp() override
    {
        SelectCipherFamily(CipherFamily::Portable);
        const auto* key = reinterpret_cast<const UCHAR*>(key_.data());
        ASSERT_TRUE(MakeEncryptionSchedule(key, 16, &encryption_));
        ASSERT_TRUE(MakeDecryptionSchedule(key, 16, &decryption_));
    }

    std::string Encipher(std::string caller, ULONG callerLength, ULONG bytes, UCHAR mask = Mask)
    {
        const std::string before = caller;
        std::string output(bytes, '\xee');
        const CallerSpan span = {reinterpret_cast<UCHAR*>(caller.data()), callerLength};
        EncipherSpan(encryption_, mask, span, bytes, reinterpret_cast<UCHAR*>(output.data()));
        EXPECT_EQ(caller, before) << "the caller's bytes changed";
        return output;
    }
    // What the caller's span of `callerLength` bytes holds afterwards, with 16 bytes behind it.
    std::string Decipher(const std::string& disk, ULONG callerLength, UCHAR mask = Mask)
    {
        std::string caller(callerLength + 16, '\xee');
        const CallerSpan span = {reinterpret_cast<UCHAR*>(caller.data()), callerLength};
        DecipherSpan(
            decryption_, mask, reinterpret_cast<const UCHAR*>(disk.data()), static_cast<ULONG>(disk.size()), span);
        EXPECT_EQ(caller.substr(callerLength), std::string(16, '\xee')) << "written behind the caller's span";
        caller.resize(callerLength);
        return caller;
    }

    const std::string key_ = Pattern(16, 77);
    AES_KEY encryption_{};
    AES_KEY decryption_{};
};

TEST_F(StreamCipher, WholeBlocksAreEncipheredAndTheRestMasked)
{
    for (ULONG bytes = 0; bytes <= 100; ++bytes)
    {
        const std::string plain = Pattern(bytes);
        EXPECT_EQ(Encipher(plain, bytes, bytes), OnDisk(key_, Mask, plain)) << bytes;
    }
}

TEST_F(StreamCipher, ReadingReversesWritingForEveryLength)
{
    for (ULONG bytes = 0; bytes <= 100; ++bytes)
    {
        const std::string plain = Pattern(bytes, 5);
        EXPECT_EQ(Decipher(OnDisk(key_, Mask, plain), bytes), plain) << bytes;
    }
}

TEST_F(StreamCipher, AMaskOfZeroStoresTheRestInTheClear)
{
    const std::string plain = Pattern(37);
    EXPECT_EQ(Encipher(plain, 37, 37, 0).substr(32), plain.substr(32));
    EXPECT_EQ(Decipher(OnDisk(key_, 0, plain), 37, 0), plain);
}

TEST_F(StreamCipher, OnlyTheFirstBytesOfALongerSpanAreEnciphered)
{
    const std::string plain = Pattern(4096);
    EXPECT_EQ(Encipher(plain, 4096, 100), OnDisk(key_, Mask, plain.substr(0, 100)));
}

TEST_F(StreamCipher, ZeroBlocksOnDiskStayZeros)
{
    const std::string zeros(16, '\0');
    const std::string first = Pattern(32, 3);
    const std::string last = Pattern(16, 4);
    const std::string disk = OnDisk(key_, Mask, first) + zeros + zeros + OnDisk(key_, Mask, last) + zeros;
    EXPECT_EQ(Decipher(disk, static_cast<ULONG>(disk.size())), first + zeros + zeros + last + zeros);
    EXPECT_EQ(Decipher(std::string(4096, '\0'), 4096), std::string(4096, '\0'));
}

TEST_F(StreamCipher, ABlockWithOneByteSetIsDeciphered)
{
    for (size_t i = 0; i < 16; ++i)
    {
        std::string disk(16, '\0');
        disk[i] = 1;
        EXPECT_EQ(Decipher(disk, 16), Crypt(key_, disk, false)) << i;
    }
}

TEST_F(StreamCipher, ZerosAreEncipheredLikeAnythingElse)
{
    const std::string zeros(48, '\0');
    EXPECT_EQ(Encipher(zeros, 48, 48), Crypt(key_, zeros, true));
}

TEST_F(StreamCipher, TheRestOfAZeroRegionIsMaskedToo)
{
    EXPECT_EQ(Decipher(std::string(21, '\0'), 21), std::string(16, '\0') + std::string(5, static_cast<char>(Mask)));
}

TEST_F(StreamCipher, ALengthenedSpanTakesWhatLiesBehindOnTheSamePage)
{
    const std::string plain = Pattern(112);
    std::unique_ptr<char, void (*)(void*)> page(static_cast<char*>(std::aligned_alloc(PAGE_SIZE, PAGE_SIZE)), free);
    std::memcpy(page.get(), plain.data(), plain.size());
    std::string output(112, '\0');
    EncipherSpan(
        encryption_, Mask, {reinterpret_cast<UCHAR*>(page.get()), 100}, 112, reinterpret_cast<UCHAR*>(output.data()));
    EXPECT_EQ(output, Crypt(key_, plain, true));
}

TEST_F(StreamCipher, ALengthenedSpanDoesNotReadTheNextPage)
{
    // The span ends with its page, which ends with the allocation: a byte more is seen by the sanitizer.
    std::unique_ptr<char, void (*)(void*)> page(static_cast<char*>(std::aligned_alloc(PAGE_SIZE, PAGE_SIZE)), free);
    const std::string plain = Pattern(100);
    char* begin = page.get() + PAGE_SIZE - 100;
    std::memcpy(begin, plain.data(), plain.size());
    std::string output(112, '\0');
    EncipherSpan(
        encryption_, Mask, {reinterpret_cast<UCHAR*>(begin), 100}, 112, reinterpret_cast<UCHAR*>(output.data()));
    EXPECT_EQ(output, Crypt(key_, plain + std::string(12, '\0'), true));
}

TEST_F(StreamCipher, WhatWasReadPastTheCallersSpanIsDropped)
{
    const std::string plain = Pattern(64);
    for (ULONG room = 1; room <= 64; ++room)
    {
        EXPECT_EQ(Decipher(OnDisk(key_, Mask, plain), room), plain.substr(0, room)) << room;
    }
}
}
}
