#include "hosted/fs/folder/folder_volume.h"

#include <gtest/gtest.h>

namespace hosted
{
namespace
{
// What a host name becomes; "refused" for one that is none here.
std::string Shown(std::string_view bytes)
{
    WideString name;
    return NameFromLinux(bytes, &name) ? Narrow(name) : "refused";
}

TEST(FolderNames, OrdinaryNamesStayAsTheyAre)
{
    for (const char* name : {"plan.txt", "Plan", ".hidden", "a b", "a..b",
             "\xc3\x9c"
             "bersicht",
             "\xf0\x9f\x8c\x8a", "~"})
    {
        EXPECT_EQ(Shown(name), name);
        EXPECT_EQ(NameToLinux(Widen(name)), name);
    }
}

TEST(FolderNames, CharactersThatNoNameCanHoldAreShownAsOthers)
{
    WideString name;
    ASSERT_TRUE(NameFromLinux("a:b\\c*?\"<>|\x01\x1f", &name));
    EXPECT_EQ(name, WideString(L"a\xf03a"
                               L"b\xf05c"
                               L"c\xf02a\xf03f\xf022\xf03c\xf03e\xf07c\xf001\xf01f"));
    EXPECT_EQ(NameToLinux(name), "a:b\\c*?\"<>|\x01\x1f");
    ASSERT_TRUE(NameFromLinux("end. ", &name));
    EXPECT_EQ(name, WideString(L"end.\xf020"));
    EXPECT_EQ(NameToLinux(name), "end. ");
    ASSERT_TRUE(NameFromLinux("...", &name));
    EXPECT_EQ(name, WideString(L"..\xf02e"));
    EXPECT_EQ(NameToLinux(name), "...");
}

TEST(FolderNames, EverySingleByteComesBackOrIsRefused)
{
    for (int code = 0; code < 256; ++code)
    {
        for (const std::string& bytes : {std::string(1, static_cast<char>(code)),
                 "a" + std::string(1, static_cast<char>(code)), std::string(1, static_cast<char>(code)) + "a"})
        {
            WideString name;
            const bool expected = code != 0 && code != '/' && code < 0x80 && bytes != ".";
            ASSERT_EQ(NameFromLinux(bytes, &name), expected) << code;
            if (expected)
            {
                EXPECT_EQ(NameToLinux(name), bytes) << code;
            }
        }
    }
}

TEST(FolderNames, WhatIsNoUtf8OrWouldBeTakenForAnotherNameIsRefused)
{
    for (const char* name : {"", ".", "..", "a/b", "\xff", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80",
             "\xf5\x80\x80\x80", "\xf4\x90\x80\x80", "\xf0\x80\x80\x80", "\xe2\x82", "a\x80", "\xef\x80\xba",
             "\xef\x80\x80", "\xef\x83\xbf"})
    {
        EXPECT_EQ(Shown(name), "refused") << name;
    }
    EXPECT_EQ(Shown(std::string(256, 'a')), "refused");
    EXPECT_EQ(Shown("\xee\xbf\xbf\xef\x84\x80"), "\xee\xbf\xbf\xef\x84\x80") << "the characters around the range";
}

TEST(FolderNames, NamesThatShowNoLinuxNameHaveNone)
{
    // Each would be a second name of another file, or of none.
    for (WideView name : {WideView(L"\xf061"),
             WideView(L"a\xf02e"
                      L"b"),
             WideView(L"a."), WideView(L"a "), WideView(L"\xf02e"), WideView(L".\xf02e"), WideView(L"\xf02f"),
             WideView(L"\xf000"), WideView(L"\xf0ff"), WideView(L"\xd800"), WideView(L"a:b"), WideView(L"")})
    {
        EXPECT_EQ(NameToLinux(name), "") << Narrow(name);
    }
}
}
}
