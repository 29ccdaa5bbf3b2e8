// Checks a package that ./package has made.
//
// usage: check_package FOLDER [--without-tarnctl]
// Prints one line per broken rule. Exit code 0: none; 1: some; 2: wrong use.

#include "tests/conformance/package/rules/package_rules.h"

#include <cstdio>
#include <cstring>

int main(int count, char** arguments)
{
    const bool without = count == 3 && std::strcmp(arguments[2], "--without-tarnctl") == 0;
    if (count != 2 && !without)
    {
        std::fprintf(stderr, "usage: check_package FOLDER [--without-tarnctl]\n");
        return 2;
    }
    const auto findings = package::FindBrokenPackageRules(arguments[1], !without);
    for (const std::string& finding : findings)
    {
        std::printf("%s\n", finding.c_str());
    }
    std::printf("%s: %s\n", arguments[1], findings.empty() ? "every rule holds" : "not fit to be given away");
    return findings.empty() ? 0 : 1;
}
