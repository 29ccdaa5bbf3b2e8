// Every value that the driver reads, with every length from 0 to 64 bytes and many contents, and of every type at the
// lengths at which an answer changes: each answer is compared with a model, and the pool is guarded, so that a read
// behind a value stops the run.

#include "driver/config/base64.h"
#include "driver/config/product_settings.h"
#include "driver/log/debug_mailslot.h"
#include "driver/process/file_protection.h"
#include "tests/unit/driver/config/product_fixture.h"

#include <algorithm>

namespace product_test
{
namespace
{
constexpr ULONG Types[] = {
    REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, 5, 6, REG_MULTI_SZ, 8, 9, 10, 11, 0xffffffff};
constexpr size_t LongestValue = 64;

// Where one length is answered otherwise than the next: nothing, half a character, what the probe has room for, keys.
constexpr size_t TellingLengths[] = {0, 1, 2, 3, 8, 9, 16, 17, 18, 25, 33, 34, 63, LongestValue};

// What fills a value: a byte for each place.
typedef UCHAR (*Filler)(size_t place);
constexpr Filler Fillers[] = {
    [](size_t) -> UCHAR { return 0; },
    [](size_t) -> UCHAR { return 0xff; },
    [](size_t place) -> UCHAR { return place % 2 == 0 ? 'A' : 0; },
    [](size_t place) -> UCHAR { return static_cast<UCHAR>(place + 1); },
    // Short texts with their terminators.
    [](size_t place) -> UCHAR { return place % 2 == 0 && place % 12 != 10 ? 'C' : 0; },
};

MachineOptions GuardedMachine()
{
    MachineOptions options;
    options.System.GuardedPool = true;
    return options;
}

class RegistrySweep : public testing::Test
{
protected:
    void TearDown() override { ResetFailures(); }
    static std::vector<UCHAR> Filled(size_t filler, size_t length)
    {
        std::vector<UCHAR> bytes(length);
        for (size_t i = 0; i < length; ++i)
        {
            bytes[i] = Fillers[filler](i);
        }
        return bytes;
    }
    // Calls body(type, bytes) for each value, which is set before: of its own type with every content and length, of
    // any other with the lengths that tell. The driver looks at a value's type either not at all or before anything
    // else.
    template <class Body>
    void ForEachValue(WideView key, WideView name, ULONG ownType, Body&& body)
    {
        auto visit = [&](ULONG type, size_t filler, size_t length)
        {
            SCOPED_TRACE(Narrow(name) + " type " + std::to_string(type) + " filler " + std::to_string(filler) +
                         " length " + std::to_string(length));
            const std::vector<UCHAR> bytes = Filled(filler, length);
            computer_.Registry().SetValue(key, name, type, bytes);
            body(type, bytes);
        };
        for (size_t filler = 0; filler < std::size(Fillers); ++filler)
        {
            for (size_t length = 0; length <= LongestValue && !HasFailure(); ++length)
            {
                visit(ownType, filler, length);
            }
        }
        size_t filler = 0;
        for (const ULONG type : Types)
        {
            for (const size_t length : TellingLengths)
            {
                if (type != ownType && !HasFailure())
                {
                    visit(type, filler++ % std::size(Fillers), length);
                }
            }
        }
    }
    void Reload()
    {
        if (computer_.DriverLoaded())
        {
            ASSERT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
        }
        computer_.ClearDebugPrints();
        ASSERT_EQ(computer_.LoadDriver(Image::Native), STATUS_SUCCESS);
    }
    // Up to the first NUL or the end; half a character is none.
    static WideString TextOf(const std::vector<UCHAR>& bytes)
    {
        WideString text(bytes.size() / sizeof(WCHAR), 0);
        __builtin_memcpy(text.data(), bytes.data(), text.size() * sizeof(WCHAR));
        return text.substr(0, text.find(WCHAR{0}));
    }

    Machine computer_{GuardedMachine()};
};

TEST_F(RegistrySweep, CryptKey)
{
    ForEachValue(Machine::ServiceKey, L"SandboxCryptKey", REG_BINARY,
        [this](ULONG, const std::vector<UCHAR>& bytes)
        {
            Reload();
            const bool isRead = bytes.size() > 8;
            const bool isKey = bytes.size() == 17 || bytes.size() == 25 || bytes.size() == 33;
            EXPECT_EQ(Global.KeyLength, isRead ? bytes.size() - 1 : 0u);
            std::vector<UCHAR> key(MaximumKeyBytes);
            if (isKey)
            {
                std::copy_n(bytes.begin(), bytes.size() - 1, key.begin());
            }
            EXPECT_THAT(Global.CryptKey, ElementsAreArray(key));
            EXPECT_EQ(Global.XorByte, isKey && bytes.size() != 25 ? bytes.back() : 0);
            const auto prints = computer_.DebugPrints();
            EXPECT_THAT(
                prints, testing::Contains(isRead ? "SandboxCryptKey Query 80000005\n" : "SandboxCryptKey Query 0\n"));
            if (isRead && !isKey)
            {
                EXPECT_THAT(prints, testing::Contains("KeyLength fail " + std::to_string(bytes.size() - 1) + "\n"));
            }
        });
}

TEST_F(RegistrySweep, SandboxPath)
{
    ForEachValue(Machine::ServiceKey, L"SandboxPath", REG_SZ,
        [this](ULONG, const std::vector<UCHAR>& bytes)
        {
            Reload();
            if (bytes.size() <= 8)
            {
                EXPECT_EQ(Global.SandboxPath.Buffer, nullptr);
                EXPECT_EQ(Global.PrefixSandboxPath.Buffer, nullptr);
                return;
            }
            const WideString text = TextOf(bytes);
            EXPECT_EQ(View(Global.SandboxPath), WideView(text));
            EXPECT_EQ(View(Global.PrefixSandboxPath), WideView(text + L"\\"));
            const UNICODE_STRING& folder = Global.ProductModeList.Folder;
            EXPECT_EQ(folder.Buffer != nullptr, text.size() >= 2);
            if (folder.Buffer != nullptr)
            {
                EXPECT_EQ(View(folder), WideView(text).substr(0, text.size() - 2));
                EXPECT_EQ(View(Global.ProductModeList.SubFolder), WideView(text.substr(0, text.size() - 2) + L"\\*"));
            }
        });
}

TEST_F(RegistrySweep, ProtectedPaths)
{
    computer_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\V\\S");
    ForEachValue(Machine::ServiceKey, L"ProtectionFiles", REG_MULTI_SZ,
        [this](ULONG type, const std::vector<UCHAR>& bytes)
        {
            Reload();
            std::vector<WideString> expected;
            WideString current;
            for (size_t i = 0; type == REG_MULTI_SZ && i < bytes.size(); i += 2)
            {
                const WCHAR unit = static_cast<WCHAR>(bytes[i] | (i + 1 < bytes.size() ? bytes[i + 1] : 0) << 8);
                if (unit != 0)
                {
                    current.push_back(unit);
                    continue;
                }
                if (current.empty())
                {
                    break;
                }
                if (std::ranges::find(expected, current) == expected.end())
                {
                    expected.push_back(current);
                }
                current.clear();
            }
            FileProtection* protection = nullptr;
            for (ULONG i = 0; i < expected.size(); ++i)
            {
                ASSERT_EQ(GetFileProtectionAt(i, &protection), STATUS_SUCCESS);
                EXPECT_EQ(View(protection->Path), WideView(expected[i]));
            }
            EXPECT_EQ(GetFileProtectionAt(static_cast<ULONG>(expected.size()), &protection), STATUS_NOT_FOUND);
            if (type != REG_MULTI_SZ || bytes.empty())
            {
                char text[64];
                std::snprintf(text, sizeof(text), "Tarnveil - REG_XXX type = %08x\n", type);
                EXPECT_THAT(computer_.DebugPrints(),
                    testing::Contains(type != REG_MULTI_SZ ? text : "Tarnveil - DataLength = Zero\n"));
            }
        });
}

TEST_F(RegistrySweep, InstallerType)
{
    Reload();
    ForEachValue(Machine::ProductKey, L"InstallerType", REG_BINARY,
        [this](ULONG type, const std::vector<UCHAR>& bytes)
        {
            LONG mode = 77;
            const NTSTATUS status = ReadInstallerMode(&mode);
            EXPECT_EQ(mode, -1);
            // No filler decodes to the magic code.
            EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
            const bool isDecoded = type == REG_BINARY && bytes.size() >= 16;
            const auto prints = computer_.DebugPrints();
            EXPECT_EQ(std::ranges::any_of(
                          prints, [](const std::string& text) { return text.starts_with("Invalid Magic Code"); }),
                isDecoded);
            computer_.ClearDebugPrints();
        });
}

// Sound text that is cut off after every byte, and that goes on behind the magic code.
TEST_F(RegistrySweep, InstallerTypeOfEveryLength)
{
    Reload();
    std::vector<UCHAR> encoded = BytesOf(EncodeBase64(BytesOf(L"ABCDEF2@tail")));
    ASSERT_EQ(encoded.size(), 64u);
    for (size_t length = 0; length <= encoded.size(); ++length)
    {
        SCOPED_TRACE(length);
        computer_.Registry().SetValue(
            Machine::ProductKey, L"InstallerType", REG_BINARY, std::span(encoded).first(length));
        LONG mode = 77;
        const NTSTATUS status = ReadInstallerMode(&mode);
        // The low byte of the eighth character is complete with the 20th digit; its high byte is zero.
        const bool hasMagic = length / 2 >= 20;
        EXPECT_EQ(status, hasMagic ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        EXPECT_EQ(mode, hasMagic ? 2 : -1);
    }
}

TEST_F(RegistrySweep, InstallFolder)
{
    Reload();
    ForEachValue(Machine::ProductKey, L"InstallFolder", REG_SZ,
        [](ULONG type, const std::vector<UCHAR>& bytes)
        {
            CountedString path;
            const NTSTATUS status = ReadProductPath(&path);
            const bool isRead = type == REG_SZ && !bytes.empty();
            EXPECT_EQ(status, isRead ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
            EXPECT_EQ(path.Get().Buffer != nullptr, isRead);
            EXPECT_EQ(path.Get().MaximumLength, isRead ? bytes.size() : 0u);
            EXPECT_EQ(View(path.Get()), isRead ? WideView(TextOf(bytes)) : WideView());
        });
}

TEST_F(RegistrySweep, DebugLogLevel)
{
    Reload();
    ForEachValue(Machine::ProductKey, L"DebugLogLevel", REG_DWORD,
        [](ULONG type, const std::vector<UCHAR>& bytes)
        {
            ULONG flags = 0xffffffff;
            EXPECT_EQ(GetDebugLogFlags(&flags), STATUS_SUCCESS);
            EXPECT_EQ(flags, type == REG_DWORD && bytes.size() >= 2 ? bytes[1] : 0u);
        });
}

// The whole of it at once: every value of the same type and length, at every load; the types that some value has, and
// one that none has. The agent runs before, since a sandbox folder of zeros makes the whole machine the sandbox, in
// which nothing starts.
TEST_F(RegistrySweep, EverythingAtOnce)
{
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    for (const ULONG type : std::initializer_list<ULONG>{REG_SZ, REG_BINARY, REG_DWORD, REG_MULTI_SZ, 0xffffffff})
    {
        for (size_t length = 0; length <= LongestValue; ++length)
        {
            const std::vector<UCHAR> bytes = Filled(length % std::size(Fillers), length);
            for (const WideView name : {L"SandboxCryptKey", L"SandboxPath", L"ProtectionFiles"})
            {
                computer_.Registry().SetValue(Machine::ServiceKey, name, type, bytes);
            }
            for (const WideView name : {L"InstallerType", L"InstallFolder", L"DebugLogLevel"})
            {
                computer_.Registry().SetValue(Machine::ProductKey, name, type, bytes);
            }
            Reload();
            EXPECT_EQ(agent.StartDriver(), STATUS_SUCCESS);
            EXPECT_EQ(agent.OutputCurrentParam(), STATUS_SUCCESS);
        }
    }
}
}
}
