// What happens to one file: stored by a sandboxed program, looked at on the disk, refused to a program outside, read
// back.
#pragma once

#include "demo/stage.h"

#include <cstdint>
#include <set>

namespace demo
{
class FileWalk
{
public:
    // `disk` is the folder behind the stage's drive.
    FileWalk(Stage& stage, const std::filesystem::path& disk, const Key& key);

    // Files of the same name get different ones in the sandbox.
    void Take(const std::filesystem::path& file);

private:
    struct Traveller
    {
        std::filesystem::path Source;
        std::string Name;
        hosted::WideString Path;
        std::uintmax_t Size;
        std::string Hash;
    };

    void Store(Traveller* traveller) const;
    void CheckDisk(const Traveller& traveller) const;
    void RefuseStranger(const Traveller& traveller) const;
    void ReadBack(const Traveller& traveller) const;

    Stage& stage_;
    const std::filesystem::path disk_;
    const Key& key_;
    std::set<hosted::WideString> names_;
};
}
