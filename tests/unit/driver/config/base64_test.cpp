// The installer's base64 against a model that works on strings of binary digits.

#include "driver/config/base64.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{
typedef std::vector<WCHAR> Text;

Text Characters(const char* ascii)
{
    Text text;
    for (; *ascii != '\0'; ++ascii)
    {
        text.push_back(static_cast<WCHAR>(*ascii));
    }
    return text;
}

// Six binary digits of a character; none is invalid.
std::string Digits(WCHAR character)
{
    static const std::string standard = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    static const std::string others = "-_.,";
    size_t value = 0;
    if (character < 128 && character != 0)
    {
        const auto byte = static_cast<char>(character);
        if (standard.find(byte) != std::string::npos)
        {
            value = standard.find(byte);
        }
        else if (others.find(byte) != std::string::npos)
        {
            value = 62 + others.find(byte) % 2;
        }
    }
    std::string digits;
    for (size_t bit = 32; bit != 0; bit /= 2)
    {
        digits.push_back((value & bit) != 0 ? '1' : '0');
    }
    return digits;
}

void AppendBytes(std::string digits, size_t count, std::string* bytes)
{
    digits.resize(count * 8, '0');
    for (size_t i = 0; i < count; ++i)
    {
        bytes->push_back(static_cast<char>(std::stoi(digits.substr(i * 8, 8), nullptr, 2)));
    }
}

struct Expected
{
    std::string Bytes;
    // The least room that is enough.
    ULONG Room;
};

Expected Model(const Text& text)
{
    const bool isShort = text.size() % 4 != 0 || text.back() == L'=';
    const size_t fullCharacters = isShort ? (text.size() - 1) / 4 * 4 : text.size();
    Expected expected;
    for (size_t i = 0; i < fullCharacters; i += 4)
    {
        AppendBytes(
            Digits(text[i]) + Digits(text[i + 1]) + Digits(text[i + 2]) + Digits(text[i + 3]), 3, &expected.Bytes);
    }
    expected.Room = static_cast<ULONG>(expected.Bytes.size()) + 1;
    if (isShort)
    {
        ++expected.Room;
        auto present = [&text](size_t index) { return index < text.size() && text[index] != L'='; };
        const std::string second = present(fullCharacters + 1) ? Digits(text[fullCharacters + 1]) : "000000";
        const bool hasThird = present(fullCharacters + 2);
        AppendBytes(Digits(text[fullCharacters]) + second + (hasThird ? Digits(text[fullCharacters + 2]) : ""),
            hasThird ? 2 : 1, &expected.Bytes);
    }
    return expected;
}

std::string Shown(const Text& text)
{
    std::string shown;
    for (const WCHAR character : text)
    {
        shown += character < 0x7f && character >= ' ' ? std::string(1, static_cast<char>(character))
                                                      : "<" + std::to_string(character) + ">";
    }
    return shown;
}

constexpr UCHAR Guard = 0xEE;
constexpr size_t GuardBytes = 8;

// Decodes into exactly that room, with guard bytes behind it. The text stands against the end of its block.
struct Decoded
{
    Decoded(const Text& text, ULONG room) : Output(room + GuardBytes, Guard), Size(room)
    {
        const auto exact = std::make_unique<WCHAR[]>(text.size());
        std::copy(text.begin(), text.end(), exact.get());
        Succeeded = DecodeBase64(exact.get(), static_cast<ULONG>(text.size()), Output.data(), &Size);
    }
    std::string Bytes() const { return {reinterpret_cast<const char*>(Output.data()), Size}; }
    // Whether everything from that byte on is as it was.
    bool UntouchedFrom(size_t first) const
    {
        for (size_t i = first; i < Output.size(); ++i)
        {
            if (Output[i] != Guard)
            {
                return false;
            }
        }
        return true;
    }

    std::vector<UCHAR> Output;
    ULONG Size;
    bool Succeeded;
};

void Compare(const Text& text)
{
    const Expected expected = Model(text);
    for (const ULONG spare : {0u, 1u, 5u})
    {
        const Decoded decoded(text, expected.Room + spare);
        ASSERT_TRUE(decoded.Succeeded) << Shown(text);
        ASSERT_EQ(decoded.Bytes(), expected.Bytes) << Shown(text);
        ASSERT_TRUE(decoded.UntouchedFrom(expected.Bytes.size())) << Shown(text);
    }
    const Decoded tight(text, expected.Room - 1);
    ASSERT_FALSE(tight.Succeeded) << Shown(text);
    ASSERT_EQ(tight.Size, expected.Room - 1) << Shown(text);
    ASSERT_TRUE(tight.UntouchedFrom(0)) << Shown(text);
}

std::string Decode(const char* ascii)
{
    const Decoded decoded(Characters(ascii), 64);
    return decoded.Succeeded ? decoded.Bytes() : "(refused)";
}

TEST(Base64, KnownTexts)
{
    EXPECT_EQ(Decode("TWFu"), "Man");
    EXPECT_EQ(Decode("TWE="), "Ma");
    EXPECT_EQ(Decode("TQ=="), "M");
    EXPECT_EQ(Decode("TWFuTWE="), "ManMa");
    EXPECT_EQ(Decode("Zm9vYmFy"), "foobar");
    EXPECT_EQ(Decode("////"), "\xff\xff\xff");
}

TEST(Base64, PaddingMayBeMissing)
{
    EXPECT_EQ(Decode("TWE"), "Ma");
    EXPECT_EQ(Decode("TQ"), "M");
    // Six bits are the upper part of a byte.
    EXPECT_EQ(Decode("T"), "L");
    EXPECT_EQ(Decode("TWFuT"), "ManL");
}

TEST(Base64, UrlSafeCharactersDecodeLikeTheStandardOnes)
{
    EXPECT_EQ(Decode("+/+/"), Decode("-_-_"));
    EXPECT_EQ(Decode("+/+/"), Decode(".,.,"));
    EXPECT_EQ(Decode("+/+/"), "\xfb\xff\xbf");
}

TEST(Base64, AnOutputOfExactlyTheDecodedLengthIsRefused)
{
    EXPECT_FALSE(Decoded(Characters("TWFu"), 3).Succeeded);
    EXPECT_TRUE(Decoded(Characters("TWFu"), 4).Succeeded);
    EXPECT_FALSE(Decoded(Characters("TQ=="), 1).Succeeded);
    EXPECT_TRUE(Decoded(Characters("TQ=="), 2).Succeeded);
    // A short group is taken to give one byte, so a second one is not counted.
    EXPECT_FALSE(Decoded(Characters("TWE="), 1).Succeeded);
    EXPECT_TRUE(Decoded(Characters("TWE="), 2).Succeeded);
}

TEST(Base64, PaddingInsideAFullGroupCountsAsZero)
{
    EXPECT_EQ(Decode("TQ==TWFu"), std::string("M\0\0Man", 6));
    EXPECT_EQ(Decode("===A"), std::string(3, '\0'));
}

TEST(Base64, FourthCharacterOfAShortGroupIsIgnored)
{
    EXPECT_EQ(Decode("TQ=="), "M");
    EXPECT_EQ(Decode("TWF="), "Ma");
    EXPECT_EQ(Decode("===="), std::string(1, '\0'));
    // A third character counts although the second is missing.
    EXPECT_EQ(Decode("T=E="), "L\x01");
}

TEST(Base64, MissingArgumentsAreRefused)
{
    const Text text = Characters("TWFu");
    UCHAR output[8] = {Guard};
    ULONG size = sizeof(output);
    EXPECT_FALSE(DecodeBase64(nullptr, 4, output, &size));
    EXPECT_FALSE(DecodeBase64(text.data(), 0, output, &size));
    EXPECT_FALSE(DecodeBase64(text.data(), 4, nullptr, &size));
    EXPECT_FALSE(DecodeBase64(text.data(), 4, output, nullptr));
    EXPECT_EQ(size, sizeof(output));
    size = 0;
    EXPECT_FALSE(DecodeBase64(text.data(), 4, output, &size));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(output[0], Guard);
}

TEST(Base64, EveryCharacterInEveryPlace)
{
    for (ULONG unit = 0; unit <= 0xffff; unit += unit < 0x300 ? 1 : 0x101)
    {
        for (size_t length = 1; length <= 8; ++length)
        {
            for (size_t place = 0; place < length; ++place)
            {
                Text text(length, L'a');
                text[place] = static_cast<WCHAR>(unit);
                ASSERT_NO_FATAL_FAILURE(Compare(text));
            }
        }
    }
}

TEST(Base64, EveryShortTextOverTellingCharacters)
{
    const Text alphabet = {L'A', L'B', L'z', L'0', L'9', L'+', L'_', L'=', L'!', 0, 0x7f, 0x80, 0xffff};
    for (size_t length = 1; length <= 4; ++length)
    {
        Text text(length, alphabet[0]);
        std::vector<size_t> index(length, 0);
        for (bool more = true; more;)
        {
            for (size_t i = 0; i < length; ++i)
            {
                text[i] = alphabet[index[i]];
            }
            ASSERT_NO_FATAL_FAILURE(Compare(text));
            more = false;
            for (size_t i = 0; i < length && !more; ++i)
            {
                more = ++index[i] < alphabet.size();
                index[i] = more ? index[i] : 0;
            }
        }
    }
}

TEST(Base64, RandomTextsOfEveryLength)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string usual = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/-_.,===";
    for (size_t length = 1; length <= 300; ++length)
    {
        for (int round = 0; round < 10; ++round)
        {
            Text text(length);
            for (WCHAR& character : text)
            {
                character = random() % 10 == 0 ? static_cast<WCHAR>(random())
                                               : static_cast<WCHAR>(usual[random() % usual.size()]);
            }
            ASSERT_NO_FATAL_FAILURE(Compare(text));
        }
    }
}
}
