#include "hosted/cm/reg_text.h"

#include <gtest/gtest.h>

namespace hosted
{
namespace
{
constexpr WideView Key = L"\\Registry\\Machine\\SOFTWARE\\Orvane";
constexpr const char* Start = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Orvane]\r\n";

class RegText : public testing::Test
{
protected:
    bool Import(const std::string& text)
    {
        error_.clear();
        return registry_.ImportReg(text, &error_);
    }
    // Type and bytes in hexadecimal: "1:61000000".
    std::string Value(WideView name, WideView key = Key)
    {
        std::optional<RegistryValue> value = registry_.GetValue(key, name);
        if (!value)
        {
            return "none";
        }
        std::string text = std::to_string(value->Type) + ":";
        for (UCHAR byte : value->Bytes)
        {
            char digits[4];
            snprintf(digits, sizeof(digits), "%02x", byte);
            text += digits;
        }
        return text;
    }

    Registry registry_;
    std::string error_;
};

TEST_F(RegText, Strings)
{
    ASSERT_TRUE(Import(Start + std::string("\"Text\"=\"a\\\\b\\\"c\"\r\n@=\"d\"\r\n\"N\\\"\\\\\"=\"\"\r\n"))) << error_;
    EXPECT_EQ("1:61005c00620022006300"
              "0000",
        Value(L"Text"));
    EXPECT_EQ("1:64000000", Value(L""));
    EXPECT_EQ("1:0000", Value(L"N\"\\"));
}

TEST_F(RegText, StringsMaySpanLines)
{
    ASSERT_TRUE(Import(Start + std::string("\"Text\"=\"a\r\nb\"\r\n\"Next\"=dword:1"))) << error_;
    EXPECT_EQ("1:61000a0062000000", Value(L"Text"));
    EXPECT_EQ("4:01000000", Value(L"Next"));
}

TEST_F(RegText, Numbers)
{
    ASSERT_TRUE(Import(Start + std::string("\"A\"=dword:deadBEEF\n\"B\" = dword: 1f ; remark\n"))) << error_;
    EXPECT_EQ("4:efbeadde", Value(L"A"));
    EXPECT_EQ("4:1f000000", Value(L"B"));
}

TEST_F(RegText, Bytes)
{
    ASSERT_TRUE(Import(Start + std::string("\"A\"=hex:01,02,ff\n\"B\"=hex:\n\"C\"=hex(7):61,00,00,00,\\\r\n  00,00\n"
                                           "\"D\"=hex(b):\\\n 01, 02\n\"E\"=hex(0):\n\"F\"=hex(ffff0001):7\n")))
        << error_;
    EXPECT_EQ("3:0102ff", Value(L"A"));
    EXPECT_EQ("3:", Value(L"B"));
    EXPECT_EQ("7:610000000000", Value(L"C"));
    EXPECT_EQ("11:0102", Value(L"D"));
    EXPECT_EQ("0:", Value(L"E"));
    EXPECT_EQ("4294901761:07", Value(L"F"));
}

TEST_F(RegText, CommentsAndBlankLines)
{
    ASSERT_TRUE(Import("windows registry editor version 5.00  \n; a remark\n\n  \t\n[HKLM\\SOFTWARE\\Orvane] ; here\n"
                       "  \"A\"=dword:1\n;[x]\n"))
        << error_;
    EXPECT_EQ("4:01000000", Value(L"A"));
}

TEST_F(RegText, KeyNames)
{
    ASSERT_TRUE(Import("Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE]\n\"A\"=dword:1\n"
                       "[hkcu\\Soft]\n\"A\"=dword:2\n[HKEY_USERS\\S-1]\n\"A\"=dword:3\n"
                       "[\\Registry\\Machine\\X [y]]\n\"A\"=dword:4\n"))
        << error_;
    EXPECT_EQ("4:01000000", Value(L"A", L"\\Registry\\Machine"));
    EXPECT_EQ("4:02000000", Value(L"A", L"\\Registry\\User\\.Default\\Soft"));
    EXPECT_EQ("4:03000000", Value(L"A", L"\\Registry\\User\\S-1"));
    EXPECT_EQ("4:04000000", Value(L"A", L"\\Registry\\Machine\\X [y]"));
}

TEST_F(RegText, Deletions)
{
    registry_.SetDword(Key, L"A", 1);
    registry_.SetDword(Key, L"B", 1);
    registry_.CreateKey(WideString(Key) + L"\\Sub\\Deep");
    ASSERT_TRUE(Import(Start + std::string("\"A\"=-\n[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Orvane\\Sub]\n"))) << error_;
    EXPECT_EQ("none", Value(L"A"));
    EXPECT_EQ("4:01000000", Value(L"B"));
    EXPECT_FALSE(registry_.KeyExists(WideString(Key) + L"\\Sub"));
}

TEST_F(RegText, Encodings)
{
    std::string text = Start + std::string("\"\xC3\xA9\"=\"\xE2\x82\xAC\"\r\n");
    std::string little = "\xFF\xFE";
    std::string big = "\xFE\xFF";
    for (WCHAR unit : Widen(text))
    {
        char low = static_cast<char>(unit);
        char high = static_cast<char>(unit >> 8);
        little += {low, high};
        big += {high, low};
    }
    for (const std::string& encoded : {text, "\xEF\xBB\xBF" + text, little, big})
    {
        registry_.Reset();
        ASSERT_TRUE(Import(encoded)) << error_;
        EXPECT_EQ("1:ac200000", Value(L"\u00e9"));
    }
}

TEST_F(RegText, ErrorsNameTheLineAndChangeNothing)
{
    auto fails = [&](const std::string& lines)
    {
        EXPECT_FALSE(Import(Start + ("\"Good\"=dword:1\n" + lines))) << lines;
        EXPECT_EQ("none", Value(L"Good"));
        return error_;
    };
    EXPECT_FALSE(Import(""));
    EXPECT_EQ("line 1: the header is missing", error_);
    EXPECT_FALSE(Import("REGEDIT4\n"));
    EXPECT_EQ("line 1: the header is missing", error_);
    EXPECT_FALSE(registry_.ImportReg("", nullptr));
    EXPECT_FALSE(Import("Windows Registry Editor Version 5.00\n\"A\"=dword:1\n"));
    EXPECT_EQ("line 2: a value without a key", error_);
    EXPECT_EQ("line 5: neither key nor value", fails("A=1\n"));
    EXPECT_EQ("line 5: the key has no end", fails("[HKEY_LOCAL_MACHINE\n"));
    EXPECT_EQ("line 5: the key has no known root", fails("[HKEY_ELSEWHERE\\A]\n"));
    EXPECT_EQ("line 5: text behind the key", fails("[HKLM\\A] x\n"));
    EXPECT_EQ("line 6: a value without a key", fails("[-HKLM\\A]\n\"A\"=dword:1\n"));
    EXPECT_EQ("line 5: an equals sign is missing", fails("\"A\" dword:1\n"));
    EXPECT_EQ("line 5: text behind the value", fails("\"A\"=dword:1 x\n"));
    EXPECT_EQ("line 6: a string has no end", fails("\"A\"=\"b\n"));
    EXPECT_EQ("line 6: a string has no end", fails("\"A\n"));
    EXPECT_EQ("line 5: a number is not up to eight hexadecimal digits", fails("\"A\"=dword:x\n"));
    EXPECT_EQ("line 5: a number is not up to eight hexadecimal digits", fails("\"A\"=dword:123456789\n"));
    EXPECT_EQ("line 5: a byte is not two hexadecimal digits", fails("\"A\"=hex:123\n"));
    EXPECT_EQ("line 5: a byte is not two hexadecimal digits", fails("\"A\"=hex:12,\n"));
    EXPECT_EQ("line 5: text behind a continued line", fails("\"A\"=hex:12,\\ x\n"));
    EXPECT_EQ("line 5: the type in brackets is no number", fails("\"A\"=hex(x):12\n"));
    EXPECT_EQ("line 5: the type in brackets is no number", fails("\"A\"=hex(7:12\n"));
    EXPECT_EQ("line 5: the value's form is unknown", fails("\"A\"=qword:12\n"));
    EXPECT_EQ("line 5: a colon is missing", fails("\"A\"=hex 12\n"));
}

TEST_F(RegText, Exports)
{
    registry_.SetString(Key, L"", L"default");
    registry_.SetString(Key, L"Path", L"C:\\a \"b\"");
    registry_.SetDword(Key, L"Number", 0xC3FF);
    registry_.SetBinary(Key, L"Bytes", std::vector<UCHAR>{1, 0xAB});
    registry_.SetMultiString(Key, L"List", {L"a"});
    registry_.SetValue(Key, L"Odd", REG_SZ, std::vector<UCHAR>{0x61});
    registry_.CreateKey(WideString(Key) + L"\\Sub");
    EXPECT_EQ("Windows Registry Editor Version 5.00\r\n"
              "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Orvane]\r\n"
              "@=\"default\"\r\n"
              "\"Bytes\"=hex:01,ab\r\n"
              "\"List\"=hex(7):61,00,00,00,00,00\r\n"
              "\"Number\"=dword:0000c3ff\r\n"
              "\"Odd\"=hex(1):61\r\n"
              "\"Path\"=\"C:\\\\a \\\"b\\\"\"\r\n"
              "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Orvane\\Sub]\r\n",
        registry_.ExportReg(Key));
    EXPECT_EQ("Windows Registry Editor Version 5.00\r\n", registry_.ExportReg(L"\\Registry\\Machine\\None"));
}

TEST_F(RegText, LongDataIsWrapped)
{
    registry_.SetBinary(Key, L"Bytes", std::vector<UCHAR>(60, 0x11));
    std::string text = registry_.ExportReg(Key);
    EXPECT_NE(std::string::npos, text.find(",\\\r\n  11,"));
    size_t longest = 0;
    for (size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
    {
        longest = std::max(longest, end - at);
    }
    EXPECT_LE(longest, 80u);
}

TEST_F(RegText, WhatIsExportedCanBeImported)
{
    registry_.SetString(Key, L"", L"x");
    registry_.SetString(Key, L"Lines", L"a\r\nb");
    registry_.SetString(Key, L"\u20ac\\\"", L"\u20ac");
    registry_.SetValue(Key, L"Lone", REG_SZ, std::vector<UCHAR>{0x00, 0xD8, 0, 0});
    registry_.SetValue(Key, L"Pair", REG_SZ, std::vector<UCHAR>{0x3D, 0xD8, 0x00, 0xDE, 0, 0});
    registry_.SetValue(Key, L"NoEnd", REG_SZ, std::vector<UCHAR>{0x41, 0});
    registry_.SetValue(Key, L"Nothing", REG_SZ, {});
    registry_.SetValue(Key, L"Short", REG_DWORD, std::vector<UCHAR>{1, 2});
    registry_.SetValue(Key, L"Quad", REG_QWORD, std::vector<UCHAR>(8, 3));
    registry_.SetBinary(Key, L"Long", std::vector<UCHAR>(1000, 0x5A));
    registry_.SetMultiString(WideString(Key) + L"\\Sub", L"List", {L"C:\\a", L"C:\\b"});
    std::string exported = registry_.ExportReg(L"\\Registry");
    Registry copy;
    ASSERT_TRUE(copy.ImportReg(exported, &error_)) << error_ << exported;
    EXPECT_EQ(exported, copy.ExportReg(L"\\Registry"));
    EXPECT_EQ(10u, copy.Values(Key).size());
    for (const NamedRegistryValue& value : registry_.Values(Key))
    {
        std::optional<RegistryValue> copied = copy.GetValue(Key, value.Name);
        ASSERT_TRUE(copied.has_value()) << Narrow(value.Name);
        EXPECT_EQ(value.Value.Type, copied->Type) << Narrow(value.Name);
        EXPECT_EQ(value.Value.Bytes, copied->Bytes) << Narrow(value.Name);
    }
}

TEST(PredefinedKeys, BothWays)
{
    EXPECT_EQ("\\Registry\\Machine", Narrow(FromPredefinedKey(L"HKEY_LOCAL_MACHINE")));
    EXPECT_EQ("HKEY_LOCAL_MACHINE2\\A", Narrow(FromPredefinedKey(L"HKEY_LOCAL_MACHINE2\\A")));
    EXPECT_EQ("HKEY_USERS\\S-1", Narrow(ToPredefinedKey(L"\\registry\\user\\S-1")));
    EXPECT_EQ("HKEY_CURRENT_USER\\A", Narrow(ToPredefinedKey(L"\\Registry\\User\\.default\\A")));
    EXPECT_EQ("\\Registry", Narrow(ToPredefinedKey(L"\\Registry")));
}
}
}
