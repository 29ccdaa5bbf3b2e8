// The messages of the control socket (docs/control-protocol.md, "Over a socket"). Plain C++ without the hosted kernel,
// as programs include it, too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace control_socket
{
inline constexpr std::uint32_t Magic = 0x4C525654; // "TVRL"
inline constexpr std::uint32_t Version = 1;

inline constexpr std::size_t HeaderBytes = 16;
// Of an input or output buffer, and of a message behind its header.
inline constexpr std::uint32_t MostBufferBytes = 1u << 20;
inline constexpr std::uint32_t MostBodyBytes = MostBufferBytes + 4096;
inline constexpr std::size_t MostConnections = 64;
inline constexpr std::uint32_t WaitForever = 0xFFFFFFFF;

// What a request wants; the answer has the same kind with AnswerBit.
enum class Kind : std::uint32_t
{
    Hello = 1,
    DeviceControl = 2,
    CreateEvent = 3,
    WaitForEvent = 4,
    EndWait = 5,
    CreateMailslot = 6,
    ReadMailslot = 7,
    CloseMailslot = 8
};
inline constexpr std::uint32_t AnswerBit = 0x80000000;

// The first word of every answer's body. Behind another than Done there is a text and nothing else.
enum class Result : std::uint32_t
{
    Done = 0,
    Malformed = 1,
    UnknownKind = 2,
    WrongVersion = 3,
    NotGreeted = 4,
    Refused = 5,
    TooLong = 6,
    NoDriver = 7,
    Missing = 8,
    TooMany = 9
};

enum class Woken : std::uint32_t
{
    Signalled = 0,
    TimedOut = 1,
    Ended = 2
};

struct Header
{
    std::uint32_t Kind = 0;
    std::uint32_t Number = 0; // the sender's; the answer repeats it
    std::uint32_t BodyBytes = 0;
};

// Puts a body together.
class Writer
{
public:
    Writer& Word(std::uint32_t value)
    {
        for (int shift = 0; shift < 32; shift += 8)
        {
            bytes_.push_back(static_cast<std::uint8_t>(value >> shift));
        }
        return *this;
    }
    Writer& Long(std::uint64_t value)
    {
        return Word(static_cast<std::uint32_t>(value)).Word(static_cast<std::uint32_t>(value >> 32));
    }
    // Without a length: only at the end of a message.
    Writer& Rest(std::span<const std::uint8_t> bytes)
    {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Writer& Text(std::string_view text)
    {
        Word(static_cast<std::uint32_t>(text.size()));
        return Rest({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    }
    const std::vector<std::uint8_t>& Bytes() const { return bytes_; }

private:
    std::vector<std::uint8_t> bytes_;
};

// Takes a body apart. Once something was missing, everything after it is.
class Reader
{
public:
    explicit Reader(std::span<const std::uint8_t> bytes) : left_(bytes) {}

    std::uint32_t Word()
    {
        const std::span<const std::uint8_t> bytes = Take(4);
        std::uint32_t value = 0;
        for (std::size_t i = bytes.size(); i-- > 0;)
        {
            value = value << 8 | bytes[i];
        }
        return value;
    }
    std::uint64_t Long()
    {
        const std::uint64_t low = Word();
        return low | static_cast<std::uint64_t>(Word()) << 32;
    }
    std::span<const std::uint8_t> Rest() { return Take(left_.size()); }
    std::string Text()
    {
        const std::span<const std::uint8_t> bytes = Take(Word());
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
    // Everything that was asked for was there.
    bool Good() const { return good_; }
    // And nothing else.
    bool Ended() const { return good_ && left_.empty(); }

private:
    std::span<const std::uint8_t> Take(std::size_t count)
    {
        good_ = good_ && count <= left_.size();
        if (!good_)
        {
            return {};
        }
        const std::span<const std::uint8_t> taken = left_.first(count);
        left_ = left_.subspan(count);
        return taken;
    }

    std::span<const std::uint8_t> left_;
    bool good_ = true;
};

// The beginning of a message, or all of it: `bodyBytes` counts the body whole, of which `body` is what comes first.
inline std::vector<std::uint8_t> Frame(
    std::uint32_t kind, std::uint32_t number, std::span<const std::uint8_t> body, std::size_t bodyBytes)
{
    Writer writer;
    writer.Word(Magic).Word(kind).Word(number).Word(static_cast<std::uint32_t>(bodyBytes)).Rest(body);
    return writer.Bytes();
}

inline std::vector<std::uint8_t> Frame(std::uint32_t kind, std::uint32_t number, std::span<const std::uint8_t> body)
{
    return Frame(kind, number, body, body.size());
}

// Nothing when it is no header. The length is as it was sent.
inline std::optional<Header> ParseHeader(std::span<const std::uint8_t> bytes)
{
    Reader reader(bytes);
    const bool isHeader = reader.Word() == Magic;
    Header header;
    header.Kind = reader.Word();
    header.Number = reader.Word();
    header.BodyBytes = reader.Word();
    return isHeader && reader.Good() ? std::optional(header) : std::nullopt;
}
}
