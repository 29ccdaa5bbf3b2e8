// A machine whose viewer has made its mailslot, with the clock at 2024-03-05 09:07:02 local time.
#pragma once

#include "driver/util/debug_print.h"
#include "hosted/ke/system_time.h"
#include "tests/support/machine.h"
#include "tests/unit/driver/process/agent_fixture.h"

namespace agent_test
{
constexpr WideView MailslotPath = L"\\Device\\mailslot\\OrvaneSandbox_Dbg";
constexpr char ProductKeyText[] = "\\Registry\\Machine\\SOFTWARE\\WOW6432Node\\Orvane Works\\Hollowbay";
constexpr char LocalTime[] = "2024/03/05 09:07:02";

typedef std::vector<std::string> Texts;

class MailslotTestBase : public AgentTest
{
protected:
    static constexpr LONGLONG Second = 10'000'000;

    void SetUp() override
    {
        AgentTest::SetUp();
        // An hour ahead of the clock.
        Model().TimeZoneBias = -3600 * Second;
        machine_.SetTime(InitialSystemTime + (64 * 86400 + 8 * 3600 + 7 * 60 + 2) * Second);
        reader_ = machine_.CreateMailslot(MailslotPath);
    }
    void SetLevel(ULONG value) { machine_.Registry().SetDword(Machine::ProductKey, L"DebugLogLevel", value); }
    // Every waiting message, each of which must be whole characters and end in exactly one terminator.
    Texts Lines()
    {
        Texts lines;
        while (const auto message = reader_->Read())
        {
            EXPECT_EQ(message->size() % sizeof(WCHAR), 0u);
            WideString text(message->size() / sizeof(WCHAR), 0);
            __builtin_memcpy(text.data(), message->data(), text.size() * sizeof(WCHAR));
            EXPECT_EQ(text.find(WCHAR{0}), text.size() - 1);
            lines.push_back(Narrow(WideView(text).substr(0, text.size() - 1)));
        }
        return lines;
    }

    std::unique_ptr<MailslotReader> reader_;
};
}
