// The road: a key, a sandbox folder and a process setting; a sandboxed program stores files; the disk holds
// ciphertext; a program outside is refused; what is read back is what was stored; nothing is left over.
#pragma once

#include "hosted/machine/machine.h"
#include "hosted/road/expected_disk.h"

#include <filesystem>
#include <stdexcept>

namespace road
{
// A step that did not hold.
class StepFailed : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct Plan
{
    std::filesystem::path Volume; // the folder that backs drive C:
    std::vector<std::filesystem::path> Files;
};

// Takes every file along, printing one line per step. Throws StepFailed at the first step that does not hold.
void Travel(const Plan& plan);
}
