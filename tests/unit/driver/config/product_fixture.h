// A machine on which the product's installer has left its values.
#pragma once

#include "driver/core/global_state.h"
#include "driver/util/debug_print.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/native_image.h"
#include "hosted/ps/query_hooks.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace product_test
{
using namespace hosted;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

typedef std::vector<std::string> Texts;

inline constexpr char ProductKeyText[] = "\\Registry\\Machine\\SOFTWARE\\WOW6432Node\\Orvane Works\\Hollowbay";

inline std::vector<UCHAR> BytesOf(WideView text)
{
    const auto first = reinterpret_cast<const UCHAR*>(text.data());
    return {first, first + text.size() * sizeof(WCHAR)};
}

// Standard base64 with padding, one 16-bit character per digit.
inline WideString EncodeBase64(const std::vector<UCHAR>& bytes)
{
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    WideString text;
    for (size_t i = 0; i < bytes.size(); i += 3)
    {
        ULONG group = 0;
        for (size_t k = 0; k < 3; ++k)
        {
            group = group << 8 | (i + k < bytes.size() ? bytes[i + k] : 0);
        }
        for (size_t k = 0; k < 4; ++k)
        {
            text.push_back(i + k <= bytes.size() ? static_cast<WCHAR>(digits[group >> (18 - 6 * k) & 0x3f]) : L'=');
        }
    }
    return text;
}

// Modules that print the driver's file name do so in a call of its own.
inline Texts Named(const Texts& messages)
{
    Texts prints;
    for (const std::string& message : messages)
    {
        prints.push_back("Tarnveil.sys: ");
        prints.push_back(message);
    }
    return prints;
}

inline Texts operator+(Texts first, const Texts& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class ProductTest : public testing::Test
{
protected:
    void TearDown() override
    {
        ResetFailures();
        ResetQueryHooks();
        Global.VerboseTrace = FALSE;
    }

    void SetType(WideView decoded, ULONG type = REG_BINARY)
    {
        computer_.Registry().SetValue(
            Machine::ProductKey, L"InstallerType", type, BytesOf(EncodeBase64(BytesOf(decoded))));
    }
    // "ABCDEF", the digit, "@".
    void SetMode(char digit)
    {
        WideString text = L"ABCDEF0@";
        text[6] = static_cast<WCHAR>(digit);
        SetType(text);
    }
    void SetInstallFolder(WideView path)
    {
        computer_.Registry().SetString(Machine::ProductKey, L"InstallFolder", path);
    }
    void SetSandbox(WideView path) { computer_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", path); }

    void Load() { ASSERT_EQ(computer_.LoadDriver(Image::Native), STATUS_SUCCESS); }
    // The prints of the load that begin with one of the words, and the calls with the driver's name before them.
    Texts LoadPrints()
    {
        computer_.ClearDebugPrints();
        Load();
        return computer_.DebugPrints();
    }
    template <class Action>
    Texts PrintsOf(Action&& action)
    {
        computer_.ClearDebugPrints();
        action();
        return computer_.DebugPrints();
    }

    Machine computer_;
};
}
