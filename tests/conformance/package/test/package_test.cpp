// A package is put together from the built files as ./package does it, and looked at; then each rule is shown to
// notice a package that breaks it.
#include "built_files.h"

#include "tests/conformance/package/rules/package_rules.h"
#include "tests/conformance/package/rules/pdb_signature.h"
#include "tests/conformance/package/rules/version_resource.h"

#include "tests/conformance/image/pe_image.h"
#include "tests/support/shell.h"
#include "tests/support/temporary_folder.h"

#include <gmock/gmock.h>

#include <optional>

namespace package
{

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Path = std::filesystem::path;

constexpr std::size_t CertificateDirectory = 4;

// Runs a command of the shell, silently. Returns whether it succeeded.
bool Succeeds(const std::string& command)
{
    return RunShell("(" + command + ") 2>&1").Code == 0;
}

// A script of windows/, as the beginning of a command.
std::string Script(const char* name)
{
    return Quoted(Path(TARNVEIL_SOURCES) / "windows" / name) + " ";
}

bool VerifySignature(const Path& image, const Path& certificate)
{
    const std::string pem = Quoted(certificate.string() + ".pem");
    return Succeeds("openssl x509 -inform DER -in " + Quoted(certificate) + " -out " + pem +
                    " && osslsigncode verify -CAfile " + pem + " -in " + Quoted(image));
}

class PackageTest : public testing::Test
{
protected:
    // Making keys takes time, so all tests begin with copies of one package.
    static void SetUpTestSuite()
    {
        work.emplace();
        ASSERT_TRUE(Succeeds(Script("assemble_package.sh") + Quoted(BuildFolder()) + " " + Quoted(work->Path("made"))));
    }

    static void TearDownTestSuite() { work.reset(); }

    void SetUp() override
    {
        ASSERT_TRUE(std::filesystem::is_directory(work->Path("made")));
        folder = work->Path("changed");
        std::filesystem::remove_all(folder);
        std::filesystem::copy(work->Path("made"), folder);
        withControlProgram = std::filesystem::exists(folder / "tarnctl.exe");
    }

    Findings Broken() const { return FindBrokenPackageRules(folder, withControlProgram); }

    void Replace(const char* name, const std::string& from, const std::string& to)
    {
        WriteText(folder / name, ReplacedAll(ReadText(folder / name), from, to));
    }

    // What is wrong beside the checksums, which any change makes wrong.
    Findings BrokenWithFreshSums() const
    {
        EXPECT_TRUE(Succeeds(
            "cd " + Quoted(folder) + " && rm SHA256SUMS && sums=$(sha256sum -- *) && echo \"$sums\" > SHA256SUMS"));
        return Broken();
    }

    // Gives the changed image the checksum that belongs to it.
    void WriteImage(std::vector<std::uint8_t> file)
    {
        const pe::Image image(file);
        Write32(file, image.ChecksumOffset(), image.ComputeChecksum());
        WriteBytes(folder / "Tarnveil.sys", file);
    }

    static inline std::optional<TemporaryFolder> work;
    Path folder;
    bool withControlProgram = false;
};

TEST_F(PackageTest, KeepsEveryRule)
{
    EXPECT_THAT(Broken(), IsEmpty());
}

TEST_F(PackageTest, IsCheckedByTheStandardToolToo)
{
    EXPECT_TRUE(Succeeds("cd " + Quoted(folder) + " && sha256sum --strict --check SHA256SUMS"));
}

// Signing changes nothing that runs: only the checksum, the place of the signature, and what stands behind the image.
TEST_F(PackageTest, SignatureIsAllThatSigningAdds)
{
    const auto unsignedFile = ReadBytes(TARNVEIL_IMAGE);
    auto signedFile = ReadBytes(folder / "Tarnveil.sys");
    const pe::Image original(unsignedFile);
    const pe::Image image(signedFile);
    const auto directory = image.Directory(CertificateDirectory);
    ASSERT_GT(directory.Size, 0u);
    ASSERT_GE(directory.VirtualAddress, unsignedFile.size());
    EXPECT_LT(directory.VirtualAddress - unsignedFile.size(), 8u);
    for (std::size_t at = unsignedFile.size(); at < directory.VirtualAddress; ++at)
    {
        EXPECT_EQ(signedFile[at], 0) << "padding at " << at;
    }
    signedFile.resize(unsignedFile.size());
    Write32(signedFile, original.ChecksumOffset(), original.Checksum());
    Write32(signedFile, original.DirectoryOffset(CertificateDirectory), 0);
    Write32(signedFile, original.DirectoryOffset(CertificateDirectory) + 4, 0);
    EXPECT_TRUE(signedFile == unsignedFile);
}

TEST_F(PackageTest, SignatureIsOfTheImageAndTheCertificate)
{
    EXPECT_TRUE(VerifySignature(folder / "Tarnveil.sys", folder / "Tarnveil-test.cer"));

    auto file = ReadBytes(folder / "Tarnveil.sys");
    file.at(pe::Image(file).Sections().front().FileOffset) ^= 1;
    WriteImage(file);
    EXPECT_FALSE(VerifySignature(folder / "Tarnveil.sys", folder / "Tarnveil-test.cer"));

    // A second signing makes a certificate of its own, which says nothing of the first image.
    const Path other = work->Path("other.sys");
    ASSERT_TRUE(Succeeds(
        Script("sign_test.sh") + Quoted(TARNVEIL_IMAGE) + " " + Quoted(other) + " " + Quoted(work->Path("other.cer"))));
    EXPECT_TRUE(VerifySignature(other, work->Path("other.cer")));
    EXPECT_FALSE(VerifySignature(work->Path("made/Tarnveil.sys"), work->Path("other.cer")));
    EXPECT_FALSE(VerifySignature(TARNVEIL_IMAGE, work->Path("other.cer"))) << "an unsigned image passed";
}

TEST_F(PackageTest, CertificateSaysThatItIsForTests)
{
    const std::string show = "openssl x509 -inform DER -noout -in " + Quoted(folder / "Tarnveil-test.cer");
    EXPECT_TRUE(Succeeds(show + " -subject | grep -F 'Tarnveil TEST certificate - not for release'"));
    EXPECT_TRUE(Succeeds(show + " -ext extendedKeyUsage | grep -F 'Code Signing'"));
    EXPECT_TRUE(Succeeds(show + " -ext basicConstraints | grep -F 'CA:FALSE'"));
}

TEST_F(PackageTest, NoticesMissingAndForeignFiles)
{
    std::filesystem::remove(folder / "Tarnveil.pdb");
    WriteText(folder / "key.pem", "secret");
    EXPECT_THAT(BrokenWithFreshSums(),
        ElementsAre("files: Tarnveil.pdb is missing or empty", "files: key.pem does not belong to the package",
            "debug: Tarnveil.pdb does not belong to Tarnveil.sys"));
}

TEST_F(PackageTest, NoticesAControlProgramTooManyAndTooFew)
{
    withControlProgram = !withControlProgram;
    EXPECT_THAT(Broken(), ElementsAre(testing::StartsWith("files: tarnctl.exe")));
}

TEST_F(PackageTest, NoticesWrongChecksums)
{
    WriteText(folder / "INSTALL.txt", ReadText(folder / "INSTALL.txt") + "x");
    EXPECT_THAT(Broken(), ElementsAre("checksums: that of INSTALL.txt is wrong"));
    Replace("SHA256SUMS", "  Tarnveil.inf", "  Another.inf");
    EXPECT_THAT(
        Broken(), testing::UnorderedElementsAre("checksums: that of INSTALL.txt is wrong",
                      "checksums: none for Tarnveil.inf", "checksums: one for Another.inf, which is not there"));
    WriteText(folder / "SHA256SUMS", "nothing\n");
    EXPECT_THAT(Broken(), Contains("checksums: the line \"nothing\""));
}

TEST_F(PackageTest, NoticesAnImageWithoutSignature)
{
    WriteBytes(folder / "Tarnveil.sys", ReadBytes(TARNVEIL_IMAGE));
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("signature: none"));
}

TEST_F(PackageTest, NoticesASignatureInTheWrongPlace)
{
    auto file = ReadBytes(folder / "Tarnveil.sys");
    file.insert(file.end(), 8, 0);
    WriteImage(file);
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("signature: not the end of the file"));

    file = ReadBytes(work->Path("made/Tarnveil.sys"));
    const pe::Image image(file);
    const auto directory = image.Directory(CertificateDirectory);
    Write32(file, image.DirectoryOffset(CertificateDirectory), directory.VirtualAddress + 4);
    Write32(file, image.DirectoryOffset(CertificateDirectory) + 4, directory.Size - 4);
    WriteImage(file);
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("signature: not aligned"));
}

TEST_F(PackageTest, NoticesAChecksumThatSigningLeftBehind)
{
    auto file = ReadBytes(folder / "Tarnveil.sys");
    Write32(file, pe::Image(file).ChecksumOffset(), pe::Image(ReadBytes(TARNVEIL_IMAGE)).Checksum());
    WriteBytes(folder / "Tarnveil.sys", file);
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("checksum: does not match the file"));
}

TEST_F(PackageTest, NoticesWritableCode)
{
    auto file = ReadBytes(folder / "Tarnveil.sys");
    const pe::Section code = pe::Image(file).Sections().front();
    Write32(file, code.HeaderOffset + 36, code.Characteristics | pe::SectionWrite);
    WriteImage(file);
    EXPECT_THAT(BrokenWithFreshSums(), Contains("writable code: section " + code.Name));
}

TEST_F(PackageTest, NoticesABrokenImage)
{
    WriteText(folder / "Tarnveil.sys", "MZ");
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre(testing::StartsWith("image: the file ends before")));
}

TEST_F(PackageTest, NoticesAPdbOfAnotherBuild)
{
    auto image = ReadBytes(folder / "Tarnveil.sys");
    const std::string name = "RSDS";
    const auto record = std::search(image.begin(), image.end(), name.begin(), name.end());
    ASSERT_NE(record, image.end());
    record[4] ^= 1;
    WriteImage(image);
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("debug: Tarnveil.pdb does not belong to Tarnveil.sys"));
}

TEST_F(PackageTest, NoticesOtherVersionsInInfAndInstructions)
{
    const auto resource = ReadVersionResource(pe::Image(ReadBytes(TARNVEIL_IMAGE)));
    ASSERT_TRUE(resource);
    const std::string version = resource->FileVersion;
    Replace("Tarnveil.inf", "," + version, ",9.9.9.9");
    WriteText(folder / "INSTALL.txt", ReplacedFirst(ReadText(folder / "INSTALL.txt"), "Tarnveil ", "Tarnveil 9"));
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("version: INSTALL.txt does not begin with \"Tarnveil " +
                                                       version.substr(0, version.rfind('.')) + " for \"",
                                           "version: DriverVer is not " + version));
}

// Where the fixed part of the version resource begins.
std::size_t FindFixedVersion(const std::vector<std::uint8_t>& file)
{
    const std::uint8_t signature[] = {0xbd, 0x04, 0xef, 0xfe};
    const auto place = std::search(file.begin(), file.end(), std::begin(signature), std::end(signature));
    EXPECT_NE(place, file.end());
    return static_cast<std::size_t>(place - file.begin());
}

TEST_F(PackageTest, NoticesVersionsThatDifferInTheImage)
{
    const auto made = ReadBytes(folder / "Tarnveil.sys");
    const std::size_t fixed = FindFixedVersion(made);
    auto file = made;
    Write32(file, fixed + 16, 0x00090009);
    Write32(file, fixed + 36, 1);
    WriteImage(file);
    EXPECT_THAT(BrokenWithFreshSums(), ElementsAre("version: the image is not called a driver",
                                           testing::StartsWith("version: the product's is 9.9.")));
    file = made;
    Write32(file, fixed + 8, 0x00090009);
    WriteImage(file);
    const Findings findings = BrokenWithFreshSums();
    EXPECT_THAT(findings, Contains(testing::StartsWith("version: the text FileVersion is not 9.9.")));
    EXPECT_THAT(findings, Contains(testing::StartsWith("version: the text ProductVersion is not 9.9.")));
}

TEST_F(PackageTest, NoticesAMissingVersionResource)
{
    auto file = ReadBytes(folder / "Tarnveil.sys");
    Write32(file, pe::Image(file).DirectoryOffset(2), 0);
    WriteImage(file);
    EXPECT_THAT(BrokenWithFreshSums(), Contains("version: the image has none"));
}

TEST_F(PackageTest, IsNotMadeOfAnIncompleteBuild)
{
    const Path build = work->Path("incomplete");
    std::filesystem::create_directories(build);
    for (const char* name : {"Tarnveil.sys", "Tarnveil.pdb", "Tarnveil.inf", "INSTALL.txt", "NOTICE.txt"})
    {
        std::filesystem::copy(BuildFolder() / name, build / name);
    }
    // The script asks the build what belongs to it.
    const std::string rules = "rule make\n  command = true\nbuild Tarnveil.sys: make\n";
    const std::string command = Script("assemble_package.sh") + Quoted(build) + " ";
    WriteText(build / "build.ninja", rules);
    EXPECT_TRUE(Succeeds(command + Quoted(work->Path("complete"))));
    WriteText(build / "build.ninja", rules + "build tarnctl.exe: make\nbuild tarnctl: phony tarnctl.exe\n");
    EXPECT_FALSE(Succeeds(command + Quoted(work->Path("withoutProgram"))));
    EXPECT_FALSE(std::filesystem::exists(work->Path("withoutProgram")));
    WriteText(build / "tarnctl.exe", "MZ");
    EXPECT_TRUE(Succeeds(command + Quoted(work->Path("withProgram"))));
    EXPECT_EQ(ReadText(work->Path("withProgram/tarnctl.exe")), "MZ");
    std::filesystem::remove(build / "Tarnveil.pdb");
    EXPECT_FALSE(Succeeds(command + Quoted(work->Path("withProgram"))));
    EXPECT_TRUE(std::filesystem::exists(work->Path("withProgram/Tarnveil.pdb"))) << "a failure took the package away";
}

TEST_F(PackageTest, DifferencesBetweenTwoBuildsAreNoticed)
{
    const Path other = work->Path("again");
    std::filesystem::create_directories(other);
    for (const char* name : {"Tarnveil.sys", "Tarnveil.pdb"})
    {
        std::filesystem::copy(BuildFolder() / name, other / name);
    }
    const std::string script = Script("compare_builds.sh");
    const std::string compare = script + Quoted(BuildFolder()) + " " + Quoted(other);
    EXPECT_TRUE(Succeeds(compare));
    for (const char* name : {"Tarnveil.sys", "Tarnveil.pdb"})
    {
        const auto built = ReadBytes(other / name);
        auto changed = built;
        changed.back() ^= 1;
        WriteBytes(other / name, changed);
        EXPECT_FALSE(Succeeds(compare)) << name;
        changed = built;
        changed.push_back(0);
        WriteBytes(other / name, changed);
        EXPECT_FALSE(Succeeds(compare)) << name;
        std::filesystem::remove(other / name);
        EXPECT_FALSE(Succeeds(compare)) << name;
        WriteBytes(other / name, built);
    }
    EXPECT_TRUE(Succeeds(compare));
    EXPECT_FALSE(Succeeds(script + Quoted(work->Path()) + " " + Quoted(work->Path()))) << "nothing equals nothing";
}

TEST(PdbSignatures, AreThatOfTheImageAndNoneOfAnotherFile)
{
    const std::string signature = ImagePdbSignature(pe::Image(ReadBytes(TARNVEIL_IMAGE)));
    auto pdb = ReadBytes(BuildFolder() / "Tarnveil.pdb");
    EXPECT_EQ(signature.size(), 34u);
    EXPECT_EQ(PdbSignature(pdb), signature);
    pdb.resize(4096);
    EXPECT_EQ(PdbSignature(pdb), "");
    EXPECT_EQ(PdbSignature({}), "");
    EXPECT_EQ(PdbSignature(ReadBytes(TARNVEIL_IMAGE)), "");
}

}

}
