#include "inf_rules.h"

#include "inf_file.h"

#include <charconv>
#include <regex>
#include <set>

namespace package
{

namespace
{

constexpr const char* ServiceName = "Tarnveil";
constexpr const char* ImageName = "Tarnveil.sys";

// One way of installing: on new systems from the driver store, on older ones in the drivers' folder.
struct Way
{
    std::string Section;   // without the decoration
    std::string Directory; // the number of the directory in which the image ends up
};

const Way Ways[] = {{"DefaultInstall", "13"}, {"ClassicInstall", "12"}};

void CheckVersion(const InfFile& inf, std::string_view version, Findings& findings)
{
    const std::pair<const char*, const char*> fixed[] = {
        {"Signature", "$windows nt$"},
        {"Class", "encryption"},
        {"ClassGuid", "{a0a701c0-a511-42ff-aa6c-06dc0395576f}"},
        {"PnpLockdown", "1"},
        {"CatalogFile", "tarnveil.cat"},
    };
    for (const auto& [key, value] : fixed)
    {
        const std::string found = inf.Value("Version", key);
        Require(LowerCase(found) == value, findings, std::string("version: ") + key + " is \"" + found + "\"");
    }
    Require(!inf.Value("Version", "Provider").empty(), findings, "version: no Provider");

    const std::vector<std::string> driver = inf.Values("Version", "DriverVer");
    static const std::regex date("(0[1-9]|1[0-2])/(0[1-9]|[12][0-9]|3[01])/20[0-9]{2}");
    Require(!driver.empty() && std::regex_match(driver[0], date), findings, "version: DriverVer has no date");
    Require(driver.size() == 2 && driver[1] == version, findings, "version: DriverVer is not " + std::string(version));
}

// The name of every section that a line of the file refers to, lower case.
std::set<std::string> ReferredSections(const InfFile& inf)
{
    std::set<std::string> names{"version", "strings", "sourcedisksnames", "sourcedisksfiles", "destinationdirs"};
    for (const Way& way : Ways)
    {
        for (const char* end : {".ntamd64", ".ntamd64.services"})
        {
            names.insert(LowerCase(way.Section) + end);
        }
    }
    names.insert({"classicuninstall.ntamd64", "classicuninstall.ntamd64.services"});
    for (const auto& [section, entries] : inf.Sections())
    {
        for (const InfEntry& entry : entries)
        {
            const std::string key = LowerCase(entry.Key);
            if (key == "addservice" && entry.Values.size() >= 3)
            {
                names.insert(LowerCase(entry.Values[2]));
            }
            if (key == "copyfiles" || key == "delfiles" || key == "addreg")
            {
                for (const std::string& name : entry.Values)
                {
                    names.insert(LowerCase(name));
                }
            }
        }
    }
    return names;
}

void CheckSections(const InfFile& inf, Findings& findings)
{
    const std::set<std::string> referred = ReferredSections(inf);
    for (const std::string& name : referred)
    {
        Require(inf.HasSection(name), findings, "sections: [" + name + "] is missing");
    }
    for (const auto& [name, entries] : inf.Sections())
    {
        // Windows takes a driver package back without undoing sections, and rejects one whose DefaultInstall says no
        // platform.
        Require(!name.starts_with("defaultuninstall") && name != "defaultinstall" && name != "defaultinstall.services",
            findings, "sections: [" + name + "] is not allowed");
        Require(referred.contains(name) || name.starts_with("default"), findings,
            "sections: nothing refers to [" + name + "]");
    }
}

void CheckFiles(const InfFile& inf, const Way& way, Findings& findings)
{
    const std::string list = inf.Value(way.Section + ".NTamd64", "CopyFiles");
    const std::vector<InfEntry>& files = inf.Section(list);
    Require(files.size() == 1 && files[0].Key.empty() && files[0].Values.front() == ImageName, findings,
        "files: " + way.Section + " does not copy just " + ImageName);

    std::string directory = inf.Value("DestinationDirs", list);
    if (directory.empty())
    {
        directory = inf.Value("DestinationDirs", "DefaultDestDir");
    }
    Require(directory == way.Directory, findings,
        "files: " + way.Section + " copies to directory " + directory + " instead of " + way.Directory);

    const std::string disk = inf.Value("SourceDisksFiles", ImageName);
    Require(!disk.empty() && !inf.Value("SourceDisksNames", disk).empty(), findings,
        std::string("files: ") + ImageName + " is on no disk");
}

void CheckUninstall(const InfFile& inf, Findings& findings)
{
    const std::string installed = inf.Value("ClassicInstall.NTamd64", "CopyFiles");
    Require(inf.Value("ClassicUninstall.NTamd64", "DelFiles") == installed, findings,
        "uninstall: does not delete what ClassicInstall copies");
    Require(inf.Value("ClassicUninstall.NTamd64.Services", "DelService") == ServiceName, findings,
        "uninstall: does not delete the service");
}

// An altitude is a decimal number, with digits behind the point if need be.
bool IsEncryptionAltitude(const std::string& text)
{
    static const std::regex number("14[0-9]{4}(\\.[0-9]+)?");
    return std::regex_match(text, number);
}

// The numeric value of a registry entry's flags or of its data.
bool IsNumber(const std::string& text, unsigned expected)
{
    unsigned value = 0;
    const bool hexadecimal = LowerCase(text).starts_with("0x");
    const char* begin = text.data() + (hexadecimal ? 2 : 0);
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(begin, end, value, hexadecimal ? 16 : 10);
    return result.ec == std::errc() && result.ptr == end && value == expected;
}

constexpr unsigned RegistryText = 0;
constexpr unsigned RegistryDword = 0x10001;

// The data that a service's AddReg section gives one value below its key; empty when it is missing or has another type.
std::string RegistryData(
    const InfFile& inf, const std::string& section, const std::string& key, const char* name, unsigned type)
{
    for (const InfEntry& entry : inf.Section(section))
    {
        const auto& fields = entry.Values;
        if (entry.Key.empty() && fields.size() == 5 && LowerCase(fields[0]) == "hkr" &&
            LowerCase(fields[1]) == LowerCase(key) && LowerCase(fields[2]) == LowerCase(name) &&
            IsNumber(fields[3], type))
        {
            return fields[4];
        }
    }
    return {};
}

void CheckInstances(const InfFile& inf, const std::string& service, Findings& findings)
{
    const std::string section = inf.Value(service, "AddReg");
    std::set<std::string> altitudes;
    for (const std::string place : {"Parameters\\Instances", "Instances"})
    {
        const std::string rule = "instances: " + service + ": " + place;
        const std::string instance = RegistryData(inf, section, place, "DefaultInstance", RegistryText);
        if (instance.empty())
        {
            findings.push_back(rule + " has no DefaultInstance");
            continue;
        }
        const std::string key = place + "\\" + instance;
        const std::string altitude = RegistryData(inf, section, key, "Altitude", RegistryText);
        Require(IsEncryptionAltitude(altitude), findings,
            rule + " has altitude \"" + altitude + "\", outside 140000 to 149999");
        Require(IsNumber(RegistryData(inf, section, key, "Flags", RegistryDword), 0), findings,
            rule + " does not attach by itself");
        altitudes.insert(altitude);
    }
    Require(altitudes.size() <= 1, findings, "instances: " + service + ": the altitudes differ");
}

void CheckService(const InfFile& inf, const Way& way, Findings& findings)
{
    const std::vector<std::string> added = inf.Values(way.Section + ".NTamd64.Services", "AddService");
    if (added.size() != 3 || added[0] != ServiceName)
    {
        findings.push_back("service: " + way.Section + " does not add " + ServiceName);
        return;
    }
    // There is no device that the service could be the function driver of.
    Require(added[1].empty() || IsNumber(added[1], 0), findings, "service: " + way.Section + " gives AddService flags");

    const std::string& service = added[2];
    // Start on demand, or started by the service manager: earlier, the registry's software part is not there.
    const std::pair<const char*, std::string> fixed[] = {
        {"ServiceType", "2"},
        {"StartType", "3"},
        {"ErrorControl", "1"},
        {"LoadOrderGroup", "FSFilter Encryption"},
        {"Dependencies", "FltMgr"},
        {"ServiceBinary", "%" + way.Directory + "%\\" + ImageName},
    };
    for (const auto& [key, value] : fixed)
    {
        const std::string found = inf.Value(service, key);
        Require(found == value, findings, "service: " + service + ": " + key + " is \"" + found + "\"");
    }
    CheckInstances(inf, service, findings);
}

}

Findings FindBrokenInfRules(std::string_view text, std::string_view version)
{
    const InfFile inf(text);
    Findings findings = inf.Problems();
    CheckVersion(inf, version, findings);
    CheckSections(inf, findings);
    for (const Way& way : Ways)
    {
        CheckFiles(inf, way, findings);
        CheckService(inf, way, findings);
    }
    CheckUninstall(inf, findings);
    return findings;
}

}
