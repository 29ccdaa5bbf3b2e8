// The INF that ships keeps every rule, and each rule notices an INF that breaks it.
#include "built_files.h"

#include "tests/conformance/package/rules/inf_file.h"
#include "tests/conformance/package/rules/inf_rules.h"
#include "tests/conformance/package/rules/version_resource.h"

#include <gmock/gmock.h>

#include <ostream>
#include <regex>

namespace package
{

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

std::string BuiltInf()
{
    return ReadText(BuildFolder() / "Tarnveil.inf");
}

// What the image says; the INF must say the same.
std::string BuiltVersion()
{
    const auto resource = ReadVersionResource(pe::Image(ReadBytes(TARNVEIL_IMAGE)));
    EXPECT_TRUE(resource);
    return resource ? resource->FileVersion : std::string();
}

TEST(InfRules, HoldOfTheInfThatShips)
{
    EXPECT_THAT(FindBrokenInfRules(BuiltInf(), BuiltVersion()), IsEmpty());
}

TEST(InfRules, NoticeAnotherVersion)
{
    EXPECT_THAT(FindBrokenInfRules(BuiltInf(), "9.8.7.0"), ElementsAre("version: DriverVer is not 9.8.7.0"));
}

TEST(InfRules, NoticeAnEmptyFile)
{
    const Findings findings = FindBrokenInfRules("", "1.0.0.0");
    EXPECT_THAT(findings, Contains("sections: [defaultinstall.ntamd64] is missing"));
    EXPECT_THAT(findings, Contains("sections: [version] is missing"));
}

TEST(InfFile, ReadsEntriesValuesStringsAndComments)
{
    const InfFile inf("; first\r\n[One]\r\nKey = a, \"b;,=\" ,%Text%\\c ; end\r\nalone,2\r\nK\"ey\"2=%12%\\%text%x\r\n"
                      "[Strings]\r\nText = \"50 %, \\ done\"\r\n");
    EXPECT_THAT(inf.Problems(), IsEmpty());
    EXPECT_THAT(inf.Values("ONE", "key"), ElementsAre("a", "b;,=", "50 %, \\ done\\c"));
    EXPECT_EQ(inf.Value("one", "Key2"), "%12%\\50 %, \\ donex");
    ASSERT_EQ(inf.Section("One").size(), 3u);
    EXPECT_EQ(inf.Section("One")[1].Key, "");
    EXPECT_THAT(inf.Section("One")[1].Values, ElementsAre("alone", "2"));
    EXPECT_EQ(inf.Value("one", "none"), "");
    EXPECT_FALSE(inf.HasSection("two"));
}

TEST(InfFile, TellsTheLineThatItCannotRead)
{
    const InfFile inf("a=1\r\n[One]\r\nb=\"\r\n[ONE]\r\n[Two\r\nc=%Nothing%\r\n");
    EXPECT_THAT(inf.Problems(), ElementsAre("text: line 1 is outside any section", "text: line 3 has an open quote",
                                    "text: line 4 begins [one] again", "text: line 5 is no section name",
                                    "text: line 6 is outside any section"));
    EXPECT_THAT(InfFile("[One]\r\nc=%Nothing%\r\n").Problems(), ElementsAre("strings: %Nothing% is not defined"));
}

struct Change
{
    const char* From;
    const char* To;
    std::vector<std::string> Findings;
};

void PrintTo(const Change& change, std::ostream* stream)
{
    *stream << change.From << " replaced by " << change.To;
}

class ChangedInf : public testing::TestWithParam<Change>
{
};

TEST_P(ChangedInf, IsNoticed)
{
    const std::string text = ReplacedFirst(BuiltInf(), GetParam().From, GetParam().To);
    Findings findings = FindBrokenInfRules(text, BuiltVersion());
    for (std::string& finding : findings)
    {
        // Where a line stands may change with every comment.
        finding = std::regex_replace(finding, std::regex("line [0-9]+"), "line N");
    }
    EXPECT_THAT(findings, testing::UnorderedElementsAreArray(GetParam().Findings));
}

const Change TextChanges[] = {
    {"Tarnveil project", "Tarnv\xc3\xa9il project", {"text: not plain ASCII"}},
    {"PnpLockdown = 1\r\n", "PnpLockdown = 1\n", {"text: a line does not end in CR LF"}},
    {"[Version]", "Stray = 1\r\n[Version]", {"text: line N is outside any section"}},
    {"\"FSFilter Encryption\"", "\"FSFilter Encryption",
        {"text: line N has an open quote", "service: Tarnveil.Service: LoadOrderGroup is \"\""}},
    {"[Strings]", "[Version]\r\n[Strings]", {"text: line N begins [version] again"}},
    {"Provider    = \"", "Vendor    = \"", {"strings: %Provider% is not defined", "version: no Provider"}},
};
INSTANTIATE_TEST_SUITE_P(Text, ChangedInf, testing::ValuesIn(TextChanges));

const Change VersionChanges[] = {
    {"$Windows NT$", "$Windows 9$", {"version: Signature is \"$Windows 9$\""}},
    {"= \"Encryption\"", "= \"ActivityMonitor\"", {"version: Class is \"ActivityMonitor\""}},
    {"{a0a701c0-", "{b0a701c0-", {"version: ClassGuid is \"{b0a701c0-a511-42ff-aa6c-06dc0395576f}\""}},
    {"PnpLockdown = 1", "PnpLockdown = 0", {"version: PnpLockdown is \"0\""}},
    {"PnpLockdown = 1", "; none", {"version: PnpLockdown is \"\""}},
    {"CatalogFile = Tarnveil.cat", "; none", {"version: CatalogFile is \"\""}},
    {"DriverVer   = ", "DriverVer   = 1", {"version: DriverVer has no date"}},
};
INSTANTIATE_TEST_SUITE_P(Version, ChangedInf, testing::ValuesIn(VersionChanges));

const Change SectionChanges[] = {
    {"[DefaultInstall.NTamd64]", "[DefaultInstall]",
        {"sections: [defaultinstall.ntamd64] is missing", "sections: [defaultinstall] is not allowed",
            "files: DefaultInstall does not copy just Tarnveil.sys"}},
    {"[DefaultInstall.NTamd64.Services]", "[DefaultInstall.NTx86.Services]",
        {"sections: [defaultinstall.ntamd64.services] is missing", "service: DefaultInstall does not add Tarnveil"}},
    {"[Strings]", "[DefaultUninstall.NTamd64]\r\n[Strings]", {"sections: [defaultuninstall.ntamd64] is not allowed"}},
    {"[Strings]", "[Forgotten]\r\n[Strings]", {"sections: nothing refers to [forgotten]"}},
    {"[ClassicUninstall.NTamd64]", "[ClassicUninstall.NTamd64.Off]",
        {"sections: [classicuninstall.ntamd64] is missing",
            "sections: nothing refers to [classicuninstall.ntamd64.off]",
            "uninstall: does not delete what ClassicInstall copies"}},
    {"DelService = %Service%", "DelService = Tarn", {"uninstall: does not delete the service"}},
};
INSTANTIATE_TEST_SUITE_P(Sections, ChangedInf, testing::ValuesIn(SectionChanges));

const Change FileChanges[] = {
    {"Tarnveil.Files         = 13", "Tarnveil.Files         = 12",
        {"files: DefaultInstall copies to directory 12 instead of 13"}},
    {"Tarnveil.Files.Classic = 12", "; none", {"files: ClassicInstall copies to directory 13 instead of 12"}},
    {"Tarnveil.sys = 1", "Tarnveil.sys = 2",
        {"files: Tarnveil.sys is on no disk", "files: Tarnveil.sys is on no disk"}},
    {"[Tarnveil.Files]\r\nTarnveil.sys", "[Tarnveil.Files]\r\nTarnveil.sys\r\nother.dll",
        {"files: DefaultInstall does not copy just Tarnveil.sys"}},
};
INSTANTIATE_TEST_SUITE_P(Files, ChangedInf, testing::ValuesIn(FileChanges));

const Change ServiceChanges[] = {
    {"ServiceType    = 2", "ServiceType    = 1", {"service: Tarnveil.Service: ServiceType is \"1\""}},
    {"StartType      = 3", "StartType      = 0", {"service: Tarnveil.Service: StartType is \"0\""}},
    {"ErrorControl   = 1", "ErrorControl   = 3", {"service: Tarnveil.Service: ErrorControl is \"3\""}},
    {"\"FSFilter Encryption\"", "\"FSFilter Anti-Virus\"",
        {"service: Tarnveil.Service: LoadOrderGroup is \"FSFilter Anti-Virus\""}},
    {"Dependencies   = FltMgr", "; none", {"service: Tarnveil.Service: Dependencies is \"\""}},
    {"%13%\\Tarnveil.sys", "%12%\\Tarnveil.sys",
        {"service: Tarnveil.Service: ServiceBinary is \"%12%\\Tarnveil.sys\""}},
    {"%12%\\Tarnveil.sys", "%13%\\Tarnveil.sys",
        {"service: Tarnveil.Service.Classic: ServiceBinary is \"%13%\\Tarnveil.sys\""}},
    {"AddService = %Service%,,", "AddService = %Service%,2,", {"service: DefaultInstall gives AddService flags"}},
    {"AddService = %Service%,,", "AddService = Other,,", {"service: DefaultInstall does not add Tarnveil"}},
};
INSTANTIATE_TEST_SUITE_P(Service, ChangedInf, testing::ValuesIn(ServiceChanges));

// Both services take the one section, so each finding comes twice.
std::vector<std::string> OfBothServices(const std::string& finding)
{
    return {"instances: Tarnveil.Service: " + finding, "instances: Tarnveil.Service.Classic: " + finding};
}

const Change InstanceChanges[] = {
    {"HKR,\"Parameters\\Instances\",", "HKR,\"Parameters\\Other\",",
        OfBothServices("Parameters\\Instances has no DefaultInstance")},
    {"HKR,\"Instances\",", "HKR,\"Other\",", OfBothServices("Instances has no DefaultInstance")},
    {"\"DefaultInstance\",0x00000000", "\"DefaultInstance\",0x00010001",
        OfBothServices("Parameters\\Instances has no DefaultInstance")},
    {"HKR,\"Instances\"", "HKLM,\"Instances\"", OfBothServices("Instances has no DefaultInstance")},
    {"\"Flags\",0x00010001,0", "\"Flags\",0x00010001,1",
        OfBothServices("Parameters\\Instances does not attach by itself")},
    {"\"Flags\",0x00010001,0\r\nHKR,\"Inst", "\"Flags\",0x00000000,0\r\nHKR,\"Inst",
        OfBothServices("Parameters\\Instances does not attach by itself")},
    {"0x00000000,%Altitude%", "0x00000000,140000", OfBothServices("the altitudes differ")},
};
INSTANTIATE_TEST_SUITE_P(Instances, ChangedInf, testing::ValuesIn(InstanceChanges));

class Altitude : public testing::TestWithParam<std::pair<const char*, bool>>
{
};

TEST_P(Altitude, MustBeThatOfAnEncryptionFilter)
{
    const auto& [altitude, allowed] = GetParam();
    const std::string own = InfFile(BuiltInf()).Value("Strings", "Altitude");
    const std::string text = ReplacedFirst(BuiltInf(), "\"" + own + "\"", "\"" + std::string(altitude) + "\"");
    EXPECT_EQ(FindBrokenInfRules(text, BuiltVersion()).size(), allowed ? 0u : 4u) << altitude;
}

INSTANTIATE_TEST_SUITE_P(Range, Altitude,
    testing::Values(std::pair("140000", true), std::pair("149999", true), std::pair("149999.75", true),
        std::pair("139999", false), std::pair("139999.9", false), std::pair("150000", false), std::pair("14500", false),
        std::pair("1450000", false), std::pair("145000.", false), std::pair("", false), std::pair("0x23668", false)));

}

}
