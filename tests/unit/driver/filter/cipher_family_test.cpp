// The processor's AES instructions and the portable routines leave the same on the disk.
#include "tests/unit/driver/filter/cipher_fixture.h"

namespace cipher_test
{
namespace
{
class CipherFamilies : public CipherTest
{
protected:
    void SetUp() override
    {
        CipherTest::SetUp();
        if (!ProcessorHasAesInstructions())
        {
            GTEST_SKIP() << "the processor has no AES instructions";
        }
    }

    // A stream opened while that family is selected; its schedules belong to it.
    PFILE_OBJECT OpenWith(CipherFamily family)
    {
        CloseAll();
        SelectCipherFamily(family);
        return OpenStream();
    }
};

TEST_F(CipherFamilies, AgreeOnEveryWrittenPage)
{
    for (const size_t keyBytes : {16, 24, 32})
    {
        SetKey(Pattern(keyBytes, 21), Mask);
        for (const LONGLONG size : {1, 15, 16, 17, 100, 127, 128, 129, 4095, 4096})
        {
            SetSize(size);
            const std::string plain = Pattern(PAGE_SIZE, static_cast<unsigned>(size));
            const std::string portable = WritePage(OpenWith(CipherFamily::Portable), 0, plain);
            EXPECT_EQ(WritePage(OpenWith(CipherFamily::Instructions), 0, plain), portable) << keyBytes << " " << size;
            EXPECT_EQ(portable.substr(0, size), OnDisk(key_, Mask, plain.substr(0, size))) << keyBytes << " " << size;
        }
    }
}

TEST_F(CipherFamilies, EachReadsWhatTheOtherWrote)
{
    for (const size_t bytes : {5, 16, 100, 4000, 4005, 4096})
    {
        SetSize(static_cast<LONGLONG>(bytes));
        const std::string plain = Pattern(bytes, 9);
        const auto written = [&](CipherFamily family)
        { return WritePage(OpenWith(family), 0, plain).substr(0, bytes); };
        const std::string portable = written(CipherFamily::Portable);
        EXPECT_EQ(ReadPage(OpenWith(CipherFamily::Instructions), portable), plain) << bytes;
        const std::string instructions = written(CipherFamily::Instructions);
        EXPECT_EQ(ReadPage(OpenWith(CipherFamily::Portable), instructions), plain) << bytes;
    }
}

// Spans around the eight blocks that the instructions take at a time, zero blocks between them.
TEST_F(CipherFamilies, AgreeOnReadingAroundZeroBlocks)
{
    for (size_t zeroAt = 0; zeroAt < 20; ++zeroAt)
    {
        std::string disk = Pattern(20 * 16, 3);
        disk.replace(zeroAt * 16, 16, 16, '\0');
        const std::string portable = ReadPage(OpenWith(CipherFamily::Portable), disk);
        EXPECT_EQ(ReadPage(OpenWith(CipherFamily::Instructions), disk), portable) << zeroAt;
        EXPECT_EQ(portable.substr(zeroAt * 16, 16), std::string(16, '\0')) << zeroAt;
    }
}
}
}
