// What the driver printed to the kernel debugger.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace hosted
{
// Every call since the last clear, in order, each as one text (UTF-8, no more than 512 bytes as on Windows).
std::vector<std::string> DebugPrints();
void ClearDebugPrints();
// Also writes each text to the file (not owned); null: no echo.
void EchoDebugPrints(FILE* file);
// Only the newest so many texts are kept, for long runs; 0: all. All at first.
void LimitDebugPrints(size_t newest);
}
