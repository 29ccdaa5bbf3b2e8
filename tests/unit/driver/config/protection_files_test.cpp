// The protected paths that the driver reads back at load.

#include "driver/process/file_protection.h"

#include "tests/unit/driver/config/product_fixture.h"

namespace product_test
{
namespace
{
class ProtectionFiles : public ProductTest
{
protected:
    void SetUp() override { SetSandbox(L"\\Device\\HarddiskVolume1\\Sandbox"); }
    void Store(const std::vector<UCHAR>& bytes, ULONG type = REG_MULTI_SZ)
    {
        computer_.Registry().SetValue(Machine::ServiceKey, L"ProtectionFiles", type, bytes);
    }
    void StoreText(WideView text) { Store(BytesOf(text)); }
    // What the load prints between the prefix of the sandbox folder and the control device.
    Texts ReadingPrints()
    {
        const Texts prints = LoadPrints();
        const auto begin = std::ranges::find(prints, "PrefixSandboxPath \\Device\\HarddiskVolume1\\Sandbox\\\n");
        const auto end = std::ranges::find(prints, "Create NT Device \\Device\\Tarnveil\n");
        EXPECT_NE(begin, prints.end());
        EXPECT_NE(end, prints.end());
        return {begin + 1, end};
    }
    Texts Paths()
    {
        Texts paths;
        FileProtection* protection = nullptr;
        for (ULONG i = 0; NT_SUCCESS(GetFileProtectionAt(i, &protection)); ++i)
        {
            paths.push_back(Narrow(View(protection->Path)));
            EXPECT_TRUE(protection->AllowedProcesses.IsEmpty());
        }
        return paths;
    }
    // Loads silently, tells the paths, unloads.
    Texts Read()
    {
        EXPECT_THAT(ReadingPrints(), IsEmpty());
        const Texts paths = Paths();
        EXPECT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
        return paths;
    }
    Texts ReadText(WideView text)
    {
        StoreText(text);
        return Read();
    }
};

TEST_F(ProtectionFiles, EachStringIsProtectedInOrder)
{
    EXPECT_THAT(
        ReadText(WideView(L"\\D\\one\0\\D\\two*\0three\0\0", 22)), ElementsAre("\\D\\one", "\\D\\two*", "three"));
}

TEST_F(ProtectionFiles, TheListEndsAtItsFirstEmptyString)
{
    EXPECT_THAT(ReadText(WideView(L"\0one\0\0", 6)), IsEmpty());
    EXPECT_THAT(ReadText(WideView(L"one\0\0two\0\0", 10)), ElementsAre("one"));
    EXPECT_THAT(ReadText(WideView(L"\0", 1)), IsEmpty());
}

TEST_F(ProtectionFiles, AStringThatOccursTwiceIsAddedOnce)
{
    EXPECT_THAT(ReadText(WideView(L"one\0ONE\0two\0one\0\0", 17)), ElementsAre("one", "two"));
}

TEST_F(ProtectionFiles, AStringWithoutItsTerminatorIsDropped)
{
    EXPECT_THAT(ReadText(L"one"), IsEmpty());
    EXPECT_THAT(ReadText(WideView(L"one\0two", 7)), ElementsAre("one"));
    // The final empty string may be missing.
    EXPECT_THAT(ReadText(WideView(L"one\0two\0", 8)), ElementsAre("one", "two"));
}

TEST_F(ProtectionFiles, HalfACharacterAtTheEndTerminatesOnlyWhenItIsZero)
{
    Store({'a', 0, 'x'});
    EXPECT_THAT(Read(), IsEmpty());
    // The reader keeps a zero behind the value, with which the last byte makes a character.
    Store({'a', 0, 0});
    EXPECT_THAT(Read(), ElementsAre("a"));
    Store({'a', 0, 0, 0, 'b'});
    EXPECT_THAT(Read(), ElementsAre("a"));
}

TEST_F(ProtectionFiles, AnotherTypeIsRejected)
{
    computer_.Registry().SetString(Machine::ServiceKey, L"ProtectionFiles", L"\\D\\one");
    EXPECT_THAT(ReadingPrints(), ElementsAre("Tarnveil - REG_XXX type = 00000001\n"));
    EXPECT_THAT(Paths(), IsEmpty());
}

TEST_F(ProtectionFiles, TheTypeIsLookedAtBeforeTheLength)
{
    Store({}, REG_BINARY);
    EXPECT_THAT(ReadingPrints(), ElementsAre("Tarnveil - REG_XXX type = 00000003\n"));
}

TEST_F(ProtectionFiles, AValueWithoutDataIsRejected)
{
    Store({});
    EXPECT_THAT(ReadingPrints(), ElementsAre("Tarnveil - DataLength = Zero\n"));
}

TEST_F(ProtectionFiles, AMissingValueIsPrinted)
{
    EXPECT_THAT(
        ReadingPrints(), ElementsAre("Tarnveil - ZwQueryValueKey ValueName = ProtectionFiles NTStatus = c0000034\n"));
}

// Queries of the load in order: the key's probe, the folder's probe and the folder, then the size and the data.
TEST_F(ProtectionFiles, AFailedQueryIsPrinted)
{
    StoreText(WideView(L"one\0\0", 5));
    for (const uint64_t number : {4, 5})
    {
        FailRoutine("ZwQueryValueKey", number);
        EXPECT_THAT(ReadingPrints(),
            ElementsAre("Tarnveil - ZwQueryValueKey ValueName = ProtectionFiles NTStatus = c000009a\n"));
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        EXPECT_THAT(Paths(), IsEmpty());
        EXPECT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
    }
}

TEST_F(ProtectionFiles, FailedAllocationsArePrintedAndWhatIsReadStays)
{
    StoreText(WideView(L"one\0two\0\0", 9));
    const Texts texts = {"Tarnveil - ProtectionFiles allocate error\n",
        "Tarnveil - file protection entry allocate error\n", "Tarnveil - file path buffer allocate error\n",
        "Tarnveil - file protection entry allocate error\n", "Tarnveil - file path buffer allocate error\n"};
    const std::vector<Texts> left = {{}, {"two"}, {"two"}, {"one"}, {"one"}};
    size_t seen = 0;
    for (uint64_t number = 1; number < 400 && seen < texts.size(); ++number)
    {
        FailRoutine("ExAllocatePoolWithTag", number);
        const Texts prints = LoadPrints();
        ResetFailures();
        if (std::ranges::find(prints, texts[seen]) != prints.end())
        {
            EXPECT_EQ(Paths(), left[seen]) << number;
            ++seen;
        }
        EXPECT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
    }
    EXPECT_EQ(seen, texts.size());
}

TEST_F(ProtectionFiles, WhatARequestStoredIsThereAfterARestart)
{
    Load();
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    ASSERT_EQ(computer_.PutOnDisk(L"C:\\Data\\a.txt", "a"), STATUS_SUCCESS);
    ASSERT_EQ(computer_.PutOnDisk(L"C:\\Data\\b.doc", "b"), STATUS_SUCCESS);
    EXPECT_EQ(agent.AddFileProtection(agent.ProcessId(), L"C:\\Data\\A.txt").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent.AddFileProtection(agent.ProcessId(), L"C:\\Data\\*.doc").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent.AddFileProtection(100, L"C:\\Data\\*.doc").Status, STATUS_SUCCESS);
    const Texts expected = {"\\Device\\HarddiskVolume1\\Data\\A.txt", "\\Device\\HarddiskVolume1\\Data\\*.doc"};
    {
        Texts paths;
        FileProtection* protection = nullptr;
        for (ULONG i = 0; NT_SUCCESS(GetFileProtectionAt(i, &protection)); ++i)
        {
            paths.push_back(Narrow(View(protection->Path)));
        }
        EXPECT_EQ(paths, expected);
    }
    EXPECT_EQ(agent.Open(L"C:\\Data\\a.txt").Status(), STATUS_SUCCESS);
    EXPECT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
    EXPECT_EQ(agent.Open(L"C:\\Data\\a.txt").Status(), STATUS_SUCCESS);
    EXPECT_THAT(ReadingPrints(), IsEmpty());
    EXPECT_EQ(Paths(), expected);
    // Closed to everybody until the agent allows somebody again.
    EXPECT_EQ(agent.Open(L"C:\\Data\\a.txt").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(agent.Open(L"C:\\Data\\b.doc").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(agent.AddFileProtection(agent.ProcessId(), L"C:\\Data\\a.TXT").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent.Open(L"C:\\Data\\a.txt").Status(), STATUS_SUCCESS);
    EXPECT_EQ(agent.Open(L"C:\\Data\\b.doc").Status(), STATUS_ACCESS_DENIED);
}

// A path that no counted string can show cannot be that of a file; its neighbours are protected.
TEST_F(ProtectionFiles, AStringBeyondACountedLengthIsPassedOver)
{
    WideString text = L"one";
    text.push_back(0);
    text += WideString(0x8000, L'x');
    text.push_back(0);
    text += L"two";
    text.append(2, 0);
    EXPECT_THAT(ReadText(text), ElementsAre("one", "two"));
}
}
}
