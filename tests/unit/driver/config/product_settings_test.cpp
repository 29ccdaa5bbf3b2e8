// The two values that the installer leaves: every text, every status.

#include "driver/config/product_settings.h"

#include "tests/unit/driver/config/product_fixture.h"

namespace product_test
{
namespace
{
const std::string QueryFailure = std::string("Failed to ZwQueryValueKey. Path = ") + ProductKeyText;
const std::string OpenFailure = std::string("Failed to ZwOpenKey. Path = ") + ProductKeyText;

class ProductSettings : public ProductTest
{
protected:
    void SetUp() override { Load(); }

    struct ModeAnswer
    {
        NTSTATUS Status;
        LONG Mode;
        Texts Prints;
    };
    ModeAnswer ReadMode()
    {
        ModeAnswer answer = {0, 77, {}};
        answer.Prints = PrintsOf([&] { answer.Status = ReadInstallerMode(&answer.Mode); });
        return answer;
    }
    void ExpectMode(NTSTATUS status, LONG mode, const Texts& messages)
    {
        const ModeAnswer answer = ReadMode();
        EXPECT_EQ(answer.Status, status);
        EXPECT_EQ(answer.Mode, mode);
        EXPECT_EQ(answer.Prints, Named(messages));
    }
    void ExpectNoMode(NTSTATUS status, const Texts& messages) { ExpectMode(status, -1, messages); }

    void ExpectPath(NTSTATUS status, const std::string& path, const Texts& messages)
    {
        CountedString read;
        NTSTATUS answered = 0;
        EXPECT_EQ(PrintsOf([&] { answered = ReadProductPath(&read); }), Named(messages));
        EXPECT_EQ(answered, status);
        EXPECT_EQ(read.Get().Buffer != nullptr, NT_SUCCESS(status));
        EXPECT_EQ(Narrow(View(read.Get())), path);
    }
    void SetFolderBytes(const std::vector<UCHAR>& bytes, ULONG type = REG_SZ)
    {
        computer_.Registry().SetValue(Machine::ProductKey, L"InstallFolder", type, bytes);
    }
    void SetTypeBytes(const std::vector<UCHAR>& bytes, ULONG type = REG_BINARY)
    {
        computer_.Registry().SetValue(Machine::ProductKey, L"InstallerType", type, bytes);
    }
};

TEST_F(ProductSettings, DigitsSelectTheMode)
{
    for (const char digit : {'0', '1', '2'})
    {
        SetMode(digit);
        ExpectMode(STATUS_SUCCESS, digit - '0',
            {std::string("Decoded InstallerType = ABCDEF") + digit + "@\n",
                std::string("Installer Mode = ") + digit + "\n"});
    }
}

TEST_F(ProductSettings, AnyOtherDigitSucceedsWithAnUnknownMode)
{
    for (const char digit : {'7', '3', '/', 'A'})
    {
        SetMode(digit);
        ExpectMode(STATUS_SUCCESS, -1,
            {std::string("Decoded InstallerType = ABCDEF") + digit + "@\n", "Installer Mode = -1\n"});
    }
}

TEST_F(ProductSettings, OnlyUnitsSixAndSevenAreLookedAt)
{
    SetType(L"      2@ and more");
    ExpectMode(STATUS_SUCCESS, 2, {"Decoded InstallerType =       2@ and more\n", "Installer Mode = 2\n"});
    // The first unit ends what is printed, not what is looked at.
    SetType(WideView(L"\0\0\0\0\0\0"
                     L"2@",
        8));
    ExpectMode(STATUS_SUCCESS, 2, {"Decoded InstallerType = \n", "Installer Mode = 2\n"});
}

TEST_F(ProductSettings, WithoutTheMagicCodeThereIsNoMode)
{
    SetType(L"ABCDEF1A");
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"Decoded InstallerType = ABCDEF1A\n", "Invalid Magic Code = 0x0041\n"});
    SetType(L"ABCDEF1\x2603");
    ExpectNoMode(
        STATUS_UNSUCCESSFUL, {"Decoded InstallerType = ABCDEF1\xe2\x98\x83\n", "Invalid Magic Code = 0x2603\n"});
    // Too short a text reads as zeros there.
    SetType(L"ABCD");
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"Decoded InstallerType = ABCD\n", "Invalid Magic Code = 0x0000\n"});
}

TEST_F(ProductSettings, UrlSafeCharactersDecodeLikeTheStandardOnes)
{
    // 0xFBFF and 0xFFBF are "+/+/"-like groups when encoded.
    WideString text = EncodeBase64(BytesOf(L"\xfffb\xfbff\xfffb"
                                           L"DEF0@"));
    ASSERT_NE(text.find(L'/'), WideString::npos);
    for (WCHAR& character : text)
    {
        character = character == L'+' ? L'-' : character == L'/' ? L'_' : character;
    }
    SetTypeBytes(BytesOf(text));
    EXPECT_EQ(ReadMode().Mode, 0);
}

TEST_F(ProductSettings, WithoutTheKeyThereIsNeither)
{
    ExpectNoMode(STATUS_OBJECT_NAME_NOT_FOUND, {OpenFailure + " NTStatus = c0000034\n"});
    ExpectPath(STATUS_OBJECT_NAME_NOT_FOUND, "", {OpenFailure + " NTStatus = c0000034\n"});
}

TEST_F(ProductSettings, WithoutTheValueThereIsNeither)
{
    computer_.Registry().CreateKey(Machine::ProductKey);
    ExpectNoMode(STATUS_OBJECT_NAME_NOT_FOUND, {QueryFailure + " ValueName = InstallerType NTStatus = c0000034\n"});
    ExpectPath(STATUS_OBJECT_NAME_NOT_FOUND, "", {QueryFailure + " ValueName = InstallFolder NTStatus = c0000034\n"});
}

TEST_F(ProductSettings, TypeThatIsNotBinaryIsRejected)
{
    SetType(L"ABCDEF1@", REG_SZ);
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"(InstallerType) Unexpected REG_XXX type = 00000001\n"});
    SetType(L"ABCDEF1@", REG_MULTI_SZ);
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"(InstallerType) Unexpected REG_XXX type = 00000007\n"});
    // The type is looked at before the length.
    SetTypeBytes({}, REG_NONE);
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"(InstallerType) Unexpected REG_XXX type = 00000000\n"});
}

TEST_F(ProductSettings, TypeWithoutDataIsRejected)
{
    SetTypeBytes({});
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"(InstallerType) DataLength is Zero\n"});
}

TEST_F(ProductSettings, TypeOfLessThanSixteenBytesIsRejected)
{
    for (size_t bytes = 1; bytes < 16; ++bytes)
    {
        SetTypeBytes(std::vector<UCHAR>(bytes, 'A'));
        ExpectNoMode(
            STATUS_UNSUCCESSFUL, {"(InstallerType) DataLength is too short. (size = " + std::to_string(bytes) + ")\n"});
    }
}

TEST_F(ProductSettings, TypeOfSixteenBytesIsDecoded)
{
    SetTypeBytes(BytesOf(L"QQBCAEMA"));
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"Decoded InstallerType = ABC\n", "Invalid Magic Code = 0x0000\n"});
    // The odd byte is no character.
    std::vector<UCHAR> odd = BytesOf(L"QQBCAEMA");
    odd.push_back('A');
    SetTypeBytes(odd);
    ExpectNoMode(STATUS_UNSUCCESSFUL, {"Decoded InstallerType = ABC\n", "Invalid Magic Code = 0x0000\n"});
}

TEST_F(ProductSettings, ModeFailsStepByStep)
{
    SetMode('0');
    FailRoutine("ZwOpenKey");
    ExpectNoMode(STATUS_INSUFFICIENT_RESOURCES, {OpenFailure + " NTStatus = c000009a\n"});
    ResetFailures();
    FailRoutine("ZwQueryValueKey", 1);
    ExpectNoMode(STATUS_INSUFFICIENT_RESOURCES, {QueryFailure + " ValueName = InstallerType NTStatus = c000009a\n"});
    ResetFailures();
    // A value that is there but cannot be read has a status of its own.
    FailRoutine("ZwQueryValueKey", 2);
    ExpectNoMode(STATUS_UNSUCCESSFUL, {QueryFailure + " ValueName = InstallerType NTStatus = c000009a\n"});
    ResetFailures();
    FailRoutine("ExAllocatePoolWithTag", 1);
    ExpectNoMode(STATUS_INSUFFICIENT_RESOURCES, {"PartialInfo allocate error\n"});
    ResetFailures();
    FailRoutine("ExAllocatePoolWithTag", 2);
    ExpectNoMode(STATUS_INSUFFICIENT_RESOURCES, {"Binary allocate error\n"});
    ResetFailures();
}

TEST_F(ProductSettings, FolderBecomesTheProductPath)
{
    SetInstallFolder(L"C:\\Program Files (x86)\\Hollowbay\\");
    ExpectPath(STATUS_SUCCESS, "C:\\Program Files (x86)\\Hollowbay\\",
        {"ProductPath = C:\\Program Files (x86)\\Hollowbay\\\n"});
    CountedString path;
    EXPECT_EQ(ReadProductPath(&path), STATUS_SUCCESS);
    EXPECT_EQ(path.Get().MaximumLength, path.Get().Length + sizeof(WCHAR));
}

TEST_F(ProductSettings, FolderEndsAtItsFirstNulOrItsData)
{
    SetFolderBytes(BytesOf(WideView(L"C:\\Bay\0behind", 13)));
    ExpectPath(STATUS_SUCCESS, "C:\\Bay", {"ProductPath = C:\\Bay\n"});
    SetFolderBytes(BytesOf(L"C:\\Bay"));
    ExpectPath(STATUS_SUCCESS, "C:\\Bay", {"ProductPath = C:\\Bay\n"});
    SetFolderBytes({0, 0});
    ExpectPath(STATUS_SUCCESS, "", {"ProductPath = \n"});
}

TEST_F(ProductSettings, FolderOfAnotherTypeIsRejected)
{
    computer_.Registry().SetString(Machine::ProductKey, L"InstallFolder", L"C:\\Bay", REG_EXPAND_SZ);
    ExpectPath(STATUS_UNSUCCESSFUL, "", {"(InstallFolder) Unexpected REG_XXX type = 00000002\n"});
    SetFolderBytes({}, REG_BINARY);
    ExpectPath(STATUS_UNSUCCESSFUL, "", {"(InstallFolder) Unexpected REG_XXX type = 00000003\n"});
}

TEST_F(ProductSettings, FolderWithoutDataIsRejected)
{
    SetFolderBytes({});
    ExpectPath(STATUS_UNSUCCESSFUL, "", {"(InstallFolder) DataLength is Zero\n"});
}

TEST_F(ProductSettings, FolderThatNoStringCanShowIsNoPath)
{
    SetFolderBytes(std::vector<UCHAR>(0x10000, 'C'));
    ExpectPath(STATUS_INSUFFICIENT_RESOURCES, "", {"ProductPath->Buffer allocate error\n"});
}

TEST_F(ProductSettings, PathFailsStepByStep)
{
    SetInstallFolder(L"C:\\Bay");
    FailRoutine("ZwOpenKey");
    ExpectPath(STATUS_INSUFFICIENT_RESOURCES, "", {OpenFailure + " NTStatus = c000009a\n"});
    ResetFailures();
    for (const uint64_t number : {1, 2})
    {
        FailRoutine("ZwQueryValueKey", number);
        ExpectPath(
            STATUS_INSUFFICIENT_RESOURCES, "", {QueryFailure + " ValueName = InstallFolder NTStatus = c000009a\n"});
        ResetFailures();
    }
    FailRoutine("ExAllocatePoolWithTag", 1);
    ExpectPath(STATUS_INSUFFICIENT_RESOURCES, "", {"PartialInfo allocate error\n"});
    ResetFailures();
    FailRoutine("ExAllocatePoolWithTag", 2);
    ExpectPath(STATUS_INSUFFICIENT_RESOURCES, "", {"ProductPath->Buffer allocate error\n"});
    ResetFailures();
}
}
}
