// Programs under Wine, in a prefix of their own.
#pragma once

#include "tests/support/temporary_folder.h"

#include <string>
#include <vector>

namespace wine
{
// A machine that Wine plays: its disk and registry live as long as the object, its running system only as long as one
// batch.
class Prefix
{
public:
    // Boots once, with copies of the files in C:\. Throws std::runtime_error, with what Wine said, when that fails.
    explicit Prefix(const std::vector<std::filesystem::path>& files);
    ~Prefix();
    Prefix(const Prefix&) = delete;
    Prefix& operator=(const Prefix&) = delete;

    struct Outcome
    {
        std::string Output;              // of the batch's programs, both streams
        std::vector<std::string> Prints; // what the driver gave to DbgPrint, in order
        std::string Notes;               // what Wine itself said: a fault of one of its processes, for example
    };
    // Runs the lines as one batch, with a system that is shut down behind it.
    Outcome Run(const std::vector<std::string>& lines) const;

    // What is C:\ inside.
    std::filesystem::path Disk() const { return folder_.Path("prefix/drive_c"); }

private:
    const TemporaryFolder folder_;
};
}
