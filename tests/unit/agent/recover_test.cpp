// recover against what the driver wrote, conceal against what it would have written.
#include "agent/tarnctl/piece_cipher.h"
#include "tests/scenario/cipher_scenario.h"
#include "tests/unit/agent/tarnctl_fixture.h"
#include "tests/support/temporary_folder.h"

#include <filesystem>
#include <numeric>

namespace tarnctl_test
{
namespace
{
using cipher_test::CipherScenario;
using cipher_test::OnDisk;
using cipher_test::Pattern;
using Arguments = std::vector<std::string>;

constexpr WideView Plan = L"C:\\Sandbox\\plan.bin";
constexpr UCHAR Mask = 0xA7;

std::vector<size_t> Sizes()
{
    std::vector<size_t> sizes(41);
    std::iota(sizes.begin(), sizes.end(), 0);
    sizes.insert(sizes.end(), {4095, 4096, 4097, 5 * 1024 * 1024, 5 * 1024 * 1024 + 7});
    return sizes;
}

// By the length of the key in bytes.
class TarnctlRecover : public testing::TestWithParam<size_t>
{
protected:
    void SetUp() override { folder_.Put("key", Key() + static_cast<char>(Mask)); }

    std::string Key() const { return Pattern(GetParam(), 31); }

    Outcome Run(const std::string& command, const Arguments& more = {})
    {
        Arguments arguments = {command, "--key-file", folder_.Path("key"), folder_.Path("in"), folder_.Path("out")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunWith(NoWay, arguments);
    }
    // Of a conversion that must succeed without a word on standard error.
    std::string Converted(const std::string& command, std::string_view input, const Arguments& more = {})
    {
        folder_.Put("in", input);
        const Outcome outcome = Run(command, more);
        EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
        EXPECT_EQ(outcome.Error, "");
        return outcome.Exit == 0 ? folder_.Get("out") : "";
    }

    TemporaryFolder folder_;
};

// The machine's key comes from a request, so that the mask byte counts for every length.
class RecoverMachine
{
public:
    explicit RecoverMachine(const std::string& key) : scenario_({.Key = ""})
    {
        EXPECT_EQ(scenario_.Agent->SetCryptKey(key, Mask), STATUS_SUCCESS);
    }

    std::string DiskAfterWriting(std::string_view plain)
    {
        auto file = scenario_.Editor->Create(Plan);
        EXPECT_EQ(file.Status(), STATUS_SUCCESS);
        for (size_t done = 0; done < plain.size(); done += 65536)
        {
            EXPECT_EQ(file.Write(plain.substr(done, 65536), static_cast<LONGLONG>(done)), STATUS_SUCCESS);
        }
        file.Flush();
        file.Close();
        scenario_.Computer.FlushAll();
        return scenario_.Computer.Disk(Plan);
    }
    // What a sandboxed program reads of a file with that on the disk.
    std::string ReadOf(std::string_view disk)
    {
        EXPECT_EQ(scenario_.Computer.PutOnDisk(Plan, disk), STATUS_SUCCESS);
        auto file = scenario_.Editor->OpenForReading(Plan);
        EXPECT_EQ(file.Status(), STATUS_SUCCESS);
        return file.ReadAll();
    }

private:
    CipherScenario scenario_;
};

TEST_P(TarnctlRecover, WhatTheDriverWrote)
{
    RecoverMachine machine(Key());
    for (const size_t size : Sizes())
    {
        const std::string plain = Pattern(size, static_cast<unsigned>(size));
        const std::string disk = machine.DiskAfterWriting(plain);
        ASSERT_EQ(disk.size(), size);
        EXPECT_TRUE(Converted("recover", disk) == plain) << size;
        EXPECT_TRUE(Converted("conceal", plain) == disk) << size;
    }
}

TEST_P(TarnctlRecover, TheDriverReadsWhatWasConcealed)
{
    RecoverMachine machine(Key());
    for (const size_t size : {1, 15, 16, 33, 4097, 1048577})
    {
        const std::string plain = Pattern(size, 5);
        EXPECT_TRUE(machine.ReadOf(Converted("conceal", plain)) == plain) << size;
    }
}

TEST_P(TarnctlRecover, ZeroBlocksStayZero)
{
    RecoverMachine machine(Key());
    // Zero blocks alone, side by side, at the beginning, around a piece's end, and a tail of zeros.
    const size_t piece = tarnctl::PieceBytes;
    std::string disk = OnDisk(Key(), Mask, Pattern(piece + 4096, 3));
    for (const size_t block : {size_t{0}, size_t{64}, size_t{80}, piece - 16, piece, piece + 160})
    {
        std::fill_n(disk.begin() + static_cast<std::ptrdiff_t>(block), 16, '\0');
    }
    disk += std::string(9, '\0');
    const std::string plain = Converted("recover", disk);
    EXPECT_TRUE(plain == machine.ReadOf(disk));
    EXPECT_EQ(plain.substr(piece - 16, 32), std::string(32, '\0'));
    EXPECT_EQ(plain.substr(plain.size() - 9), std::string(9, static_cast<char>(Mask)));
    // Zeros that a program wrote are enciphered.
    EXPECT_EQ(Converted("conceal", std::string(40, '\0')), machine.DiskAfterWriting(std::string(40, '\0')));
}

TEST_P(TarnctlRecover, ATrueSizeBelowTheLength)
{
    for (const size_t size : {0, 1, 16, 100, 4096})
    {
        const std::string plain = Pattern(size, 9);
        const std::string padded = OnDisk(Key(), Mask, plain) + std::string(8192 - size, 'p');
        EXPECT_EQ(Converted("recover", padded, {"--size", std::to_string(size)}), plain);
        EXPECT_EQ(Converted("conceal", plain + "rest", {"--size", std::to_string(size)}), OnDisk(Key(), Mask, plain));
    }
    const size_t piece = tarnctl::PieceBytes;
    const std::string plain = Pattern(2 * piece, 9);
    for (const size_t size : {piece - 1, piece, piece + 1, 2 * piece})
    {
        const std::string disk = OnDisk(Key(), Mask, plain.substr(0, size)) + "rest";
        EXPECT_TRUE(Converted("recover", disk, {"--size", std::to_string(size)}) == plain.substr(0, size)) << size;
    }
}

TEST_P(TarnctlRecover, ATrueSizeBeyondTheLength)
{
    const std::string plain = Pattern(64, 9);
    // The last block is cut, so it is lost; what was there before it is not.
    folder_.Put("in", OnDisk(Key(), Mask, plain).substr(0, 40));
    const Outcome text = Run("recover", {"--size", "64"});
    EXPECT_EQ(text.Exit, 0);
    EXPECT_THAT(text.Error, HasSubstr("zeros from byte 32 on"));
    EXPECT_EQ(folder_.Get("out"), plain.substr(0, 32) + std::string(32, '\0'));
    EXPECT_EQ(Run("recover", {"--size", "64", "--json"}).Output,
        "{\"output\":\"" + folder_.Path("out") + "\",\"bytes\":64,\"zeroFrom\":32}\n");
    // Zeros for several pieces, behind an input that ends with one.
    const size_t piece = tarnctl::PieceBytes;
    const std::string whole = Pattern(piece, 9);
    folder_.Put("in", OnDisk(Key(), Mask, whole));
    EXPECT_EQ(Run("recover", {"--size", std::to_string(3 * piece + 5)}).Exit, 0);
    EXPECT_TRUE(folder_.Get("out") == whole + std::string(2 * piece + 5, '\0'));
    std::filesystem::remove(folder_.Path("out"));
    const Outcome conceal = Run("conceal", {"--size", std::to_string(piece + 1)});
    EXPECT_EQ(conceal.Exit, 2);
    EXPECT_THAT(conceal.Error, HasSubstr("ends before the size"));
    EXPECT_THAT(folder_.Names(), testing::UnorderedElementsAre("key", "in"));
}

TEST_P(TarnctlRecover, AKeyFileOfDigitsAndAnotherMask)
{
    const std::string plain = Pattern(37, 2);
    const std::string disk = OnDisk(Key(), Mask, plain);
    std::string digits;
    for (const char unit : Key() + static_cast<char>(Mask))
    {
        char text[4];
        std::snprintf(text, sizeof(text), "%02X ", static_cast<unsigned>(static_cast<unsigned char>(unit)));
        digits += text;
    }
    EXPECT_EQ(Converted("recover", OnDisk(Key(), 0, plain), {"--mask", "0"}), plain);
    EXPECT_EQ(Converted("recover", disk, {"--mask", "0xA7"}), plain);
    folder_.Put("key", digits);
    EXPECT_EQ(Converted("recover", disk), plain);
    EXPECT_EQ(Converted("recover", disk, {"--hex"}), plain);
    folder_.Put("key", Key() + static_cast<char>(Mask));
    EXPECT_EQ(Run("recover", {"--hex"}).Exit, 2);
}

INSTANTIATE_TEST_SUITE_P(KeyLengths, TarnctlRecover, testing::Values(16, 24, 32));

TEST(TarnctlRecoverKey, A192BitKeyFromTheRegistryHasNoMask)
{
    TemporaryFolder folder;
    CipherScenario scenario({.Key = Pattern(24, 4711)});
    const std::string plain = Pattern(100, 1);
    auto file = scenario.Editor->Create(Plan);
    EXPECT_EQ(file.Write(plain), STATUS_SUCCESS);
    file.Flush();
    folder.Put("key", scenario.Key + static_cast<char>(cipher_test::ScenarioMask));
    folder.Put("in", scenario.Computer.Disk(Plan));
    EXPECT_EQ(RunWith(NoWay,
                  {"recover", "--mask", "0", "--key-file", folder.Path("key"), folder.Path("in"), folder.Path("out")})
                  .Exit,
        0);
    EXPECT_EQ(folder.Get("out"), plain);
}

class TarnctlRecoverFiles : public testing::Test
{
protected:
    void SetUp() override
    {
        folder_.Put("key", std::string(17, 'k'));
        folder_.Put("in", "some bytes of a file");
    }

    Outcome Run(const std::string& input, const std::string& output)
    {
        return RunWith(NoWay, {"recover", "--key-file", folder_.Path("key"), input, output});
    }
    void ExpectUntouched()
    {
        EXPECT_EQ(folder_.Get("key"), std::string(17, 'k'));
        EXPECT_EQ(folder_.Get("in"), "some bytes of a file");
    }

    TemporaryFolder folder_;
};

TEST_F(TarnctlRecoverFiles, TheAnswerNamesTheOutput)
{
    const std::string out = folder_.Path("out");
    EXPECT_EQ(Run(folder_.Path("in"), out).Output, out + ": 20 bytes\n");
    EXPECT_EQ(RunWith(NoWay, {"conceal", "--json", "--key-file", folder_.Path("key"), folder_.Path("in"), out}).Output,
        "{\"output\":\"" + out + "\",\"bytes\":20}\n");
    EXPECT_THAT(folder_.Names(), testing::UnorderedElementsAre("key", "in", "out"));
}

TEST_F(TarnctlRecoverFiles, OutputThatIsTheInputOrTheKeyIsRefused)
{
    std::filesystem::create_symlink(folder_.Path("in"), folder_.Path("symbolic"));
    std::filesystem::create_hard_link(folder_.Path("in"), folder_.Path("hard"));
    for (const char* name : {"in", "symbolic", "hard", "key"})
    {
        const Outcome outcome = Run(folder_.Path("in"), folder_.Path(name));
        EXPECT_EQ(outcome.Exit, 2) << name;
        EXPECT_THAT(outcome.Error, HasSubstr(name == std::string("key") ? "is the key file" : "is the input itself"));
    }
    EXPECT_EQ(Run(folder_.Path("in"), folder_.Path("./in")).Exit, 2);
    ExpectUntouched();
}

TEST_F(TarnctlRecoverFiles, AnOldOutputIsReplacedWhole)
{
    folder_.Put("out", std::string(1000, 'o'));
    EXPECT_EQ(Run(folder_.Path("in"), folder_.Path("out")).Exit, 0);
    EXPECT_EQ(folder_.Get("out").size(), 20u);
}

TEST_F(TarnctlRecoverFiles, WhatCannotBeOpened)
{
    EXPECT_EQ(Run(folder_.Path("absent"), folder_.Path("out")).Exit, 2);
    EXPECT_EQ(Run(folder_.Path(""), folder_.Path("out")).Exit, 2);
    EXPECT_EQ(Run(folder_.Path("in"), folder_.Path("")).Exit, 2);
    EXPECT_EQ(Run(folder_.Path("in"), "/dev/null").Exit, 2);
    EXPECT_EQ(Run(folder_.Path("in"), folder_.Path("absent/out")).Exit, 4);
    EXPECT_THAT(folder_.Names(), testing::UnorderedElementsAre("key", "in"));
}

TEST_F(TarnctlRecoverFiles, AReadThatFailsLeavesNothing)
{
    // Reading a process's memory at address 0 fails, opening it does not.
    folder_.Put("out", "old");
    const Outcome outcome = Run("/proc/self/mem", folder_.Path("out"));
    EXPECT_EQ(outcome.Exit, 4);
    EXPECT_THAT(outcome.Error, HasSubstr("cannot be read"));
    EXPECT_EQ(folder_.Get("out"), "old");
    EXPECT_THAT(folder_.Names(), testing::UnorderedElementsAre("key", "in", "out"));
}
}
}
