// Files that are read and replaced as a whole. All throw std::runtime_error with the file's name and the reason.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hosted
{
// The path with its symbolic links followed, also when the file itself is not there.
std::string ResolveFile(const std::string& path);

// Nothing when it is not there.
std::optional<std::string> ReadWholeFile(const std::string& path);

// On the disk when it returns. The file keeps its mode and, where the host allows it, its owner; a new one is for the
// user alone. Whoever looks, now or after a crash, finds the old file or the new one.
void ReplaceWholeFile(const std::string& path, std::string_view bytes);
}
