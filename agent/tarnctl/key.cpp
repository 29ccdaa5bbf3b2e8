#include "agent/tarnctl/key.h"

#include "agent/tarnctl/failure.h"

#include <algorithm>

namespace tarnctl
{
namespace
{
// The longest text of a key: 66 digits with as many separators as anyone would put between them.
constexpr std::size_t LongestKeyFile = 512;

void Wipe(void* memory, std::size_t bytes)
{
    auto* unit = static_cast<volatile std::uint8_t*>(memory);
    while (bytes-- > 0)
    {
        *unit++ = 0;
    }
}

// Bytes that hold a key on the way; wiped when they go. They never grow beyond their first capacity.
class Secret
{
public:
    explicit Secret(std::size_t capacity) { Bytes.reserve(capacity); }
    ~Secret() { Wipe(Bytes.data(), Bytes.capacity()); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    std::vector<std::uint8_t> Bytes;
};

int DigitValue(char digit)
{
    if (digit >= '0' && digit <= '9')
    {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool IsSeparator(char unit)
{
    return unit == ' ' || unit == '\t' || unit == '\r' || unit == '\n' || unit == ':';
}

bool IsKeyLength(std::size_t length)
{
    return length == 17 || length == 25 || length == 33;
}
}

Key::Key(std::span<const std::uint8_t> bytes) : length_(bytes.size())
{
    if (!IsKeyLength(length_))
    {
        throw Failure(ExitCode::WrongUse,
            "a key has 16, 24 or 32 bytes and one mask byte: 17, 25 or 33 bytes, not " + std::to_string(length_));
    }
    std::ranges::copy(bytes, bytes_);
}

Key::~Key()
{
    Wipe(bytes_, sizeof(bytes_));
}

Key KeyFromHexadecimal(std::string_view text)
{
    Secret secret(text.size());
    int high = -1;
    for (const char unit : text)
    {
        if (high < 0 && IsSeparator(unit))
        {
            continue;
        }
        const int value = DigitValue(unit);
        if (value < 0)
        {
            throw Failure(ExitCode::WrongUse, "the key is not hexadecimal");
        }
        if (high < 0)
        {
            high = value;
            continue;
        }
        secret.Bytes.push_back(static_cast<std::uint8_t>(high * 16 + value));
        high = -1;
    }
    if (high >= 0)
    {
        throw Failure(ExitCode::WrongUse, "the key has an odd number of hexadecimal digits");
    }
    return Key(secret.Bytes);
}

Key KeyFromFile(const std::string& path, KeyForm form)
{
    Secret secret(LongestKeyFile);
    secret.Bytes.resize(LongestKeyFile);
    const std::unique_ptr<InputFile> file = OpenInput(path);
    secret.Bytes.resize(file->Read(secret.Bytes));
    if (form == KeyForm::Either && IsKeyLength(secret.Bytes.size()))
    {
        return Key(secret.Bytes);
    }
    if (form == KeyForm::Either && secret.Bytes.size() < 2 * 17)
    {
        throw Failure(ExitCode::WrongUse, path + ": a key file has 17, 25 or 33 bytes, or their hexadecimal digits");
    }
    try
    {
        return KeyFromHexadecimal({reinterpret_cast<const char*>(secret.Bytes.data()), secret.Bytes.size()});
    }
    catch (const Failure& failure)
    {
        throw Failure(failure.Code(), path + ": " + failure.what());
    }
}
}
