#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"
#include "hosted/rtl/wide_string.h"

#include <gtest/gtest.h>

#include <cstring>

namespace hosted
{
namespace
{
TEST(InitUnicodeString, CountsTheTerminatorInTheMaximum)
{
    const WCHAR text[] = L"plan";
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    EXPECT_EQ(8, string.Length);
    EXPECT_EQ(10, string.MaximumLength);
    EXPECT_EQ(text, string.Buffer);
    RtlInitUnicodeString(&string, L"");
    EXPECT_EQ(0, string.Length);
    EXPECT_EQ(2, string.MaximumLength);
}

TEST(InitUnicodeString, WithoutText)
{
    UNICODE_STRING string = {1, 2, reinterpret_cast<PWSTR>(8)};
    RtlInitUnicodeString(&string, nullptr);
    EXPECT_EQ(0, string.Length);
    EXPECT_EQ(0, string.MaximumLength);
    EXPECT_EQ(nullptr, string.Buffer);
}

TEST(InitUnicodeString, CutsWhatTheFieldsCannotHold)
{
    WideString fits(0x7FFE, L'x');
    WideString tooLong(0x8000, L'x');
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, fits.c_str());
    EXPECT_EQ(0xFFFC, string.Length);
    EXPECT_EQ(0xFFFE, string.MaximumLength);
    RtlInitUnicodeString(&string, tooLong.c_str());
    EXPECT_EQ(0xFFFC, string.Length);
    EXPECT_EQ(0xFFFE, string.MaximumLength);
}

ULONG Hash(WideView text, bool ignoreCase, ULONG algorithm = HASH_STRING_ALGORITHM_X65599)
{
    UNICODE_STRING string = Counted(text);
    ULONG hash = 0xDEADBEEF;
    EXPECT_EQ(STATUS_SUCCESS, RtlHashUnicodeString(&string, ignoreCase, algorithm, &hash));
    return hash;
}

TEST(HashUnicodeString, X65599)
{
    EXPECT_EQ(0u, Hash(L"", false));
    EXPECT_EQ(0x61u, Hash(L"a", false));
    EXPECT_EQ(0x61u * 65599u + 0x62u, Hash(L"ab", false));
    EXPECT_EQ((0x61u * 65599u + 0x20ACu) * 65599u + 0xFFFFu, Hash(L"a\u20ac\uffff", false));
    EXPECT_EQ(Hash(L"abc", false), Hash(L"abc", false, HASH_STRING_ALGORITHM_DEFAULT));
}

TEST(HashUnicodeString, Case)
{
    EXPECT_NE(Hash(L"Abc", false), Hash(L"aBC", false));
    EXPECT_EQ(Hash(L"Abc\u00e9", true), Hash(L"aBC\u00c9", true));
    EXPECT_EQ(Hash(L"ABC", false), Hash(L"abc", true));
}

TEST(HashUnicodeString, InvalidParameters)
{
    UNICODE_STRING string = Counted(L"a");
    ULONG hash = 77;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RtlHashUnicodeString(nullptr, FALSE, 1, &hash));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RtlHashUnicodeString(&string, FALSE, 1, nullptr));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RtlHashUnicodeString(&string, FALSE, 2, &hash));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RtlHashUnicodeString(&string, FALSE, 0xFFFFFFFF, &hash));
    FailRoutine("RtlHashUnicodeString");
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RtlHashUnicodeString(&string, FALSE, 1, &hash));
    ResetFailures();
    EXPECT_EQ(77u, hash);
}

TEST(HashUnicodeStringDeath, FoldingNeedsPageableMemory)
{
    RaisedIrql dispatch(DISPATCH_LEVEL);
    EXPECT_EQ(0x61u, Hash(L"a", false));
    EXPECT_DEATH(Hash(L"a", true), "irql-too-high: RtlHashUnicodeString");
}

class Version : public testing::Test
{
protected:
    void SetUp() override { saved_ = Model(); }
    void TearDown() override
    {
        Model() = saved_;
        ResetFailures();
    }

private:
    SystemModel saved_;
};

TEST_F(Version, ComesFromTheModel)
{
    RTL_OSVERSIONINFOW version;
    memset(&version, 0xA5, sizeof(version));
    version.dwOSVersionInfoSize = sizeof(version);
    EXPECT_EQ(STATUS_SUCCESS, RtlGetVersion(&version));
    EXPECT_EQ(sizeof(version), version.dwOSVersionInfoSize);
    EXPECT_EQ(6u, version.dwMajorVersion);
    EXPECT_EQ(1u, version.dwMinorVersion);
    EXPECT_EQ(7601u, version.dwBuildNumber);
    EXPECT_EQ(2u, version.dwPlatformId);
    EXPECT_EQ("Service Pack 1", Narrow(version.szCSDVersion));
    Model().MajorVersion = 10;
    Model().MinorVersion = 0;
    Model().BuildNumber = 19045;
    EXPECT_EQ(STATUS_SUCCESS, RtlGetVersion(&version));
    EXPECT_EQ(10u, version.dwMajorVersion);
    EXPECT_EQ(0u, version.dwMinorVersion);
    EXPECT_EQ(19045u, version.dwBuildNumber);
    EXPECT_EQ(0, version.szCSDVersion[0]);
}

TEST_F(Version, FillsTheExtendedStructure)
{
    struct
    {
        RTL_OSVERSIONINFOW Common;
        USHORT ServicePackMajor;
        USHORT ServicePackMinor;
        USHORT SuiteMask;
        UCHAR ProductType;
        UCHAR Reserved;
    } version;
    memset(&version, 0xA5, sizeof(version));
    version.Common.dwOSVersionInfoSize = sizeof(version);
    EXPECT_EQ(STATUS_SUCCESS, RtlGetVersion(&version.Common));
    EXPECT_EQ(1, version.ServicePackMajor);
    EXPECT_EQ(0, version.ServicePackMinor);
    EXPECT_EQ(0x100, version.SuiteMask);
    EXPECT_EQ(1, version.ProductType);
    Model().BuildNumber = 7600;
    EXPECT_EQ(STATUS_SUCCESS, RtlGetVersion(&version.Common));
    EXPECT_EQ(0, version.ServicePackMajor);
}

TEST_F(Version, FailsWhenAsked)
{
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    FailRoutine("RtlGetVersion");
    EXPECT_EQ(STATUS_UNSUCCESSFUL, RtlGetVersion(&version));
    EXPECT_EQ(0u, version.dwMajorVersion);
}

TEST_F(Version, RulesDeath)
{
    RTL_OSVERSIONINFOW version = {};
    EXPECT_DEATH(RtlGetVersion(&version), "version-size");
    version.dwOSVersionInfoSize = sizeof(version);
    RaisedIrql apc(APC_LEVEL);
    EXPECT_DEATH(RtlGetVersion(&version), "irql-too-high: RtlGetVersion");
}
}
}
