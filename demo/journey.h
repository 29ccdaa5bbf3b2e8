// The road: a key, a sandbox folder and a process setting; a sandboxed program stores files; the disk holds
// ciphertext; a program outside is refused; what is read back is what was stored; a protected document stays protected
// over a restart; nothing is left over.
#pragma once

#include "demo/stage.h"

#include <vector>

namespace demo
{
struct Plan
{
    Scenery Where;
    std::vector<std::filesystem::path> Files;
};

// Takes every file along, printing one line per step. Throws StepFailed at the first step that does not hold.
void Travel(const Plan& plan);
}
