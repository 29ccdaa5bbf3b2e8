#include "package_rules.h"

#include "inf_rules.h"
#include "memory_integrity.h"
#include "pdb_signature.h"
#include "version_resource.h"

#include "tests/conformance/image/image_rules.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

namespace package
{

namespace
{

using Path = std::filesystem::path;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* SumsName = "SHA256SUMS";
constexpr std::size_t CertificateDirectory = 4; // its address is an offset in the file
constexpr std::uint32_t DriverFileType = 3;

Bytes ReadFile(const Path& path)
{
    std::ifstream stream(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(stream), {});
}

std::string ReadText(const Path& path)
{
    const Bytes bytes = ReadFile(path);
    return std::string(bytes.begin(), bytes.end());
}

std::string Sha256(const Bytes& bytes)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    std::string text;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) == 1)
    {
        for (unsigned index = 0; index < size; ++index)
        {
            char digits[3];
            std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(digest[index]));
            text += digits;
        }
    }
    return text;
}

void CheckFiles(const Path& folder, bool withControlProgram, Findings& findings)
{
    std::set<std::string> expected{
        "Tarnveil.sys", "Tarnveil.pdb", "Tarnveil.inf", "Tarnveil-test.cer", "INSTALL.txt", "NOTICE.txt", SumsName};
    if (withControlProgram)
    {
        expected.insert("tarnctl.exe");
    }
    for (const std::string& name : expected)
    {
        std::error_code error;
        Require(std::filesystem::file_size(folder / name, error) > 0 && !error, findings,
            "files: " + name + " is missing or empty");
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        const std::string name = entry.path().filename();
        Require(expected.contains(name), findings, "files: " + name + " does not belong to the package");
    }
}

void CheckSums(const Path& folder, Findings& findings)
{
    std::map<std::string, std::string> sums;
    std::istringstream lines(ReadText(folder / SumsName));
    for (std::string line; std::getline(lines, line);)
    {
        const std::size_t gap = line.find("  ");
        if (gap != 64 || !sums.emplace(line.substr(gap + 2), line.substr(0, gap)).second)
        {
            findings.push_back("checksums: the line \"" + line + "\"");
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        const std::string name = entry.path().filename();
        if (name == SumsName)
        {
            continue;
        }
        Require(sums.contains(name), findings, "checksums: none for " + name);
        Require(!sums.contains(name) || sums[name] == Sha256(ReadFile(entry.path())), findings,
            "checksums: that of " + name + " is wrong");
        sums.erase(name);
    }
    for (const auto& [name, sum] : sums)
    {
        findings.push_back("checksums: one for " + name + ", which is not there");
    }
}

// The signature is the end of the file, and Windows ignores one that is not aligned.
void CheckSignature(const pe::Image& image, Findings& findings)
{
    const auto directory = image.Directory(CertificateDirectory);
    if (directory.Size == 0)
    {
        findings.push_back("signature: none");
        return;
    }
    Require(directory.VirtualAddress % 8 == 0 && directory.Size % 8 == 0, findings, "signature: not aligned");
    Require(std::size_t{directory.VirtualAddress} + directory.Size == image.File().size(), findings,
        "signature: not the end of the file");
}

// Returns the version of the image, which all others are to be.
std::string CheckVersions(const Path& folder, const pe::Image& image, Findings& findings)
{
    const auto resource = ReadVersionResource(image);
    if (!resource)
    {
        findings.push_back("version: the image has none");
        return {};
    }
    const std::string version = resource->FileVersion;
    Require(resource->FileType == DriverFileType, findings, "version: the image is not called a driver");
    Require(resource->ProductVersion == version, findings, "version: the product's is " + resource->ProductVersion);
    for (const char* name : {"FileVersion", "ProductVersion"})
    {
        const auto text = resource->Strings.find(name);
        Require(text != resource->Strings.end() && text->second == version, findings,
            std::string("version: the text ") + name + " is not " + version);
    }
    // The texts leave out the last number, which is always 0.
    const std::string title = "Tarnveil " + version.substr(0, version.rfind('.')) + " for ";
    Require(ReadText(folder / "INSTALL.txt").starts_with(title), findings,
        "version: INSTALL.txt does not begin with \"" + title + "\"");
    return version;
}

void CheckImage(const Path& folder, Findings& findings)
{
    const pe::Image image(ReadFile(folder / "Tarnveil.sys"));
    for (const Findings& more : {FindBrokenRules(image), FindMemoryIntegrityRisks(image)})
    {
        findings.insert(findings.end(), more.begin(), more.end());
    }
    CheckSignature(image, findings);

    const std::string signature = ImagePdbSignature(image);
    Require(!signature.empty() && signature == PdbSignature(ReadFile(folder / "Tarnveil.pdb")), findings,
        "debug: Tarnveil.pdb does not belong to Tarnveil.sys");

    const std::string version = CheckVersions(folder, image, findings);
    const Findings inf = FindBrokenInfRules(ReadText(folder / "Tarnveil.inf"), version);
    findings.insert(findings.end(), inf.begin(), inf.end());
}

}

Findings FindBrokenPackageRules(const Path& folder, bool withControlProgram)
{
    Findings findings;
    if (!std::filesystem::is_directory(folder))
    {
        return {"files: " + folder.string() + " is no folder"};
    }
    CheckFiles(folder, withControlProgram, findings);
    CheckSums(folder, findings);
    try
    {
        CheckImage(folder, findings);
    }
    catch (const pe::Malformed& error)
    {
        findings.push_back(std::string("image: ") + error.what());
    }
    return findings;
}

}
