// Files as recover and conceal need them, alike on both systems. Paths are UTF-8.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace tarnctl
{
// Which file it is, whatever name led to it.
struct FileIdentity
{
    std::uint64_t Volume = 0;
    std::uint64_t File = 0;

    bool operator==(const FileIdentity&) const = default;
};

class InputFile
{
public:
    virtual ~InputFile() = default;
    // Fills the span; fewer bytes only at the end of the file. Throws Failure with Trouble.
    virtual std::size_t Read(std::span<std::uint8_t> bytes) = 0;
    virtual FileIdentity Identity() const = 0;
};

// A new file under a name of its own beside `path`, which takes that name only when it is whole. Without Finish it is
// removed again.
class OutputFile
{
public:
    virtual ~OutputFile() = default;
    // Both throw Failure with Trouble.
    virtual void Write(std::span<const std::uint8_t> bytes) = 0;
    // Makes the bytes last, then gives the file its name, in place of an old file.
    virtual void Finish() = 0;
};

// Throws Failure with WrongUse when it cannot be opened or is a folder.
std::unique_ptr<InputFile> OpenInput(const std::string& path);
// True when something is there. Throws Failure with WrongUse when it is no ordinary file.
bool FindFile(const std::string& path, FileIdentity* identity);
// Throws Failure with Trouble. Only the user may read the file.
std::unique_ptr<OutputFile> CreateOutput(const std::string& path);
}
