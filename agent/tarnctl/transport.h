// The way to a driver: what differs between a driver in this Windows and one elsewhere.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tarnctl
{
// What a request came to: an NTSTATUS, and the byte count that the request reported (which is 0 for most answers,
// although they are in the output buffer).
struct Reply
{
    std::uint32_t Status = 0;
    std::uint32_t Bytes = 0;
};

enum class Wake
{
    Signalled,
    TimedOut,
    Interrupted // the user wants the program to end
};

// The reading end of the driver's debug mailslot. It ends with the object.
class Mailslot
{
public:
    virtual ~Mailslot() = default;
    // The oldest message, which is then gone, in UTF-16; nothing when none waits.
    virtual std::optional<std::u16string> Read() = 0;
};

// What a driver runs in, where that is not the Windows that the program runs in. UTF-8.
struct VolumeDescription
{
    std::string Drive;      // "S:"
    std::string Device;     // "\Device\HarddiskVolume2"
    std::string Folder;     // where the host keeps its files
    std::string MountPoint; // where the host's programs see it; may be empty
};

struct LiveDescription
{
    std::string System; // "6.1"
    std::string Driver; // which image
    std::vector<VolumeDescription> Volumes;
};

class Transport
{
public:
    virtual ~Transport() = default;

    // One device-control request. Both spans may be empty; what the driver wrote is in `output` afterwards.
    virtual Reply Send(std::uint32_t code, std::span<const std::uint8_t> input, std::span<std::uint8_t> output) = 0;

    // Makes the event that the driver signals after each log record, once, and gives the value that names it in the
    // request. Throws Failure.
    virtual std::uint64_t CreateLogEvent() = 0;
    // Waits for that event, forever without a time; ends its signal.
    virtual Wake WaitForLogEvent(std::optional<std::chrono::milliseconds> longest) = 0;

    // Nothing for the Windows that the program runs in.
    virtual std::optional<LiveDescription> Describe() { return std::nullopt; }

    // Throws Failure when it cannot be made, as when another program reads it.
    virtual std::unique_ptr<Mailslot> CreateDebugMailslot() = 0;
};

// Opens the way. Throws Failure with ExitCode::NotReachable.
using Connect = std::function<std::unique_ptr<Transport>()>;
// The same to a host's socket; an empty path stands for the usual one.
using ConnectAt = std::function<std::unique_ptr<Transport>(const std::string& path)>;
}
