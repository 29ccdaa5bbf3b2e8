// road --volume DIR --image PATH [--driver native|windows] FILE...
//
// Takes files through the driver in the hosted kernel: the natively built one, or the image. DIR is kept for the
// volume, whose disk is DIR/disk and is made anew. Exit code 0 when every step held, 1 when one did not, 2 for wrong
// use.

#include "demo/journey.h"
#include "demo/report.h"

#include <cstdio>
#include <cstring>
#include <filesystem>

namespace
{
struct Arguments
{
    std::filesystem::path Volume;
    std::filesystem::path Image;
    std::filesystem::path Driver = "native";
    std::vector<std::filesystem::path> Files;
};

bool Parse(int count, char** values, Arguments* arguments)
{
    for (int i = 1; i < count; ++i)
    {
        std::filesystem::path* option = std::strcmp(values[i], "--volume") == 0   ? &arguments->Volume
                                        : std::strcmp(values[i], "--image") == 0  ? &arguments->Image
                                        : std::strcmp(values[i], "--driver") == 0 ? &arguments->Driver
                                                                                  : nullptr;
        if (option == nullptr)
        {
            arguments->Files.emplace_back(values[i]);
            continue;
        }
        if (++i == count)
        {
            return false;
        }
        *option = values[i];
    }
    const bool known = arguments->Driver == "native" || arguments->Driver == "windows";
    return known && !arguments->Volume.empty() && !arguments->Image.empty() && !arguments->Files.empty();
}

bool AreFiles(const std::vector<std::filesystem::path>& files)
{
    for (const auto& file : files)
    {
        if (!std::filesystem::is_regular_file(file))
        {
            std::fprintf(stderr, "road: %s: no such file\n", file.c_str());
            return false;
        }
    }
    return true;
}
}

int main(int count, char** values)
{
    Arguments arguments;
    if (!Parse(count, values, &arguments))
    {
        std::fprintf(stderr, "usage: road --volume DIR --image PATH [--driver native|windows] FILE...\n");
        return 2;
    }
    if (!AreFiles(arguments.Files))
    {
        return 2;
    }
    const std::filesystem::path disk = std::filesystem::absolute(arguments.Volume) / "disk";
    try
    {
        std::filesystem::remove_all(disk);
        std::filesystem::create_directories(disk);
        demo::Travel({{disk, arguments.Driver == "windows" ? arguments.Image : ""}, arguments.Files});
        if (!std::filesystem::is_regular_file(arguments.Image))
        {
            throw demo::StepFailed("the driver image " + arguments.Image.string() + " was not built");
        }
    }
    catch (const std::exception& failure)
    {
        std::fflush(stdout);
        std::fprintf(stderr, "failed     %s\n", failure.what());
        return 1;
    }
    std::printf("ciphertext %s\n", (disk / "Sandbox").c_str());
    std::printf("driver     %s (%ju bytes)\n", arguments.Image.c_str(),
        static_cast<uintmax_t>(std::filesystem::file_size(arguments.Image)));
    return 0;
}
