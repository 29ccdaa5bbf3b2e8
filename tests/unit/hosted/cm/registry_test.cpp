#include "hosted/cm/registry.h"

#include <gtest/gtest.h>

#include <thread>

namespace hosted
{
namespace
{
constexpr WideView Service = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tarnveil";

std::vector<UCHAR> Units(std::initializer_list<unsigned> units)
{
    std::vector<UCHAR> bytes;
    for (unsigned unit : units)
    {
        bytes.push_back(static_cast<UCHAR>(unit));
        bytes.push_back(static_cast<UCHAR>(unit >> 8));
    }
    return bytes;
}

std::string Joined(const std::vector<WideString>& names)
{
    std::string text;
    for (const WideString& name : names)
    {
        text += "[" + Narrow(name) + "]";
    }
    return text;
}

TEST(Registry, StartsWithItsRoots)
{
    Registry registry;
    EXPECT_TRUE(registry.KeyExists(L"\\Registry"));
    EXPECT_TRUE(registry.KeyExists(L"\\Registry\\Machine"));
    EXPECT_EQ("[Machine][User]", Joined(registry.Subkeys(L"\\Registry")));
    EXPECT_FALSE(registry.KeyExists(Service));
    EXPECT_FALSE(registry.KeyExists(L"\\Device"));
}

TEST(Registry, KeysIgnoreCaseAndKeepTheirSpelling)
{
    Registry registry;
    EXPECT_TRUE(registry.CreateKey(L"\\Registry\\Machine\\SOFTWARE\\Orvane"));
    EXPECT_TRUE(registry.CreateKey(L"\\REGISTRY\\MACHINE\\software\\ORVANE\\Sub"));
    EXPECT_EQ("[SOFTWARE]", Joined(registry.Subkeys(L"\\registry\\machine")));
    EXPECT_TRUE(registry.KeyExists(L"\\registry\\machine\\software\\orvane\\sub\\"));
    EXPECT_FALSE(registry.CreateKey(L"\\Elsewhere\\Key"));
    EXPECT_EQ("", Joined(registry.Subkeys(L"\\Registry\\Machine\\None")));
}

TEST(Registry, DeletesKeysWithTheirSubkeys)
{
    Registry registry;
    registry.CreateKey(L"\\Registry\\Machine\\A\\B\\C");
    EXPECT_TRUE(registry.DeleteKey(L"\\registry\\machine\\a\\"));
    EXPECT_FALSE(registry.KeyExists(L"\\Registry\\Machine\\A\\B"));
    EXPECT_FALSE(registry.DeleteKey(L"\\Registry\\Machine\\A"));
    EXPECT_FALSE(registry.DeleteKey(L"\\Registry\\Machine\\None\\A"));
    EXPECT_FALSE(registry.DeleteKey(L"nonsense"));
    EXPECT_FALSE(registry.DeleteKey(L""));
}

TEST(Registry, StoresValuesOfEveryKind)
{
    Registry registry;
    registry.SetString(Service, L"Text", L"ab");
    registry.SetString(Service, L"Expand", L"", REG_EXPAND_SZ);
    registry.SetDword(Service, L"Number", 0x01020304);
    registry.SetBinary(Service, L"Bytes", std::vector<UCHAR>{9, 8, 7});
    registry.SetMultiString(Service, L"List", {L"a", L"bc"});
    registry.SetMultiString(Service, L"Empty", {});
    auto get = [&](WideView name, ULONG type)
    {
        std::optional<RegistryValue> value = registry.GetValue(Service, name);
        EXPECT_TRUE(value.has_value());
        EXPECT_EQ(type, value->Type);
        return value->Bytes;
    };
    EXPECT_EQ(Units({'a', 'b', 0}), get(L"TEXT", REG_SZ));
    EXPECT_EQ(Units({0}), get(L"Expand", REG_EXPAND_SZ));
    EXPECT_EQ((std::vector<UCHAR>{4, 3, 2, 1}), get(L"number", REG_DWORD));
    EXPECT_EQ((std::vector<UCHAR>{9, 8, 7}), get(L"Bytes", REG_BINARY));
    EXPECT_EQ(Units({'a', 0, 'b', 'c', 0, 0}), get(L"List", REG_MULTI_SZ));
    EXPECT_EQ(Units({0}), get(L"Empty", REG_MULTI_SZ));
}

TEST(Registry, ReplacesAndDeletesValues)
{
    Registry registry;
    registry.SetDword(Service, L"Value", 1);
    registry.SetString(Service, L"VALUE", L"x");
    std::vector<NamedRegistryValue> values = registry.Values(Service);
    ASSERT_EQ(1u, values.size());
    EXPECT_EQ("Value", Narrow(values[0].Name));
    EXPECT_EQ(static_cast<ULONG>(REG_SZ), values[0].Value.Type);
    EXPECT_TRUE(registry.DeleteValue(Service, L"value"));
    EXPECT_FALSE(registry.DeleteValue(Service, L"value"));
    EXPECT_FALSE(registry.DeleteValue(L"\\Registry\\Machine\\None", L"value"));
    EXPECT_FALSE(registry.GetValue(Service, L"value").has_value());
    EXPECT_FALSE(registry.GetValue(L"\\Registry\\Machine\\None", L"value").has_value());
    EXPECT_TRUE(registry.Values(L"\\Registry\\Machine\\None").empty());
}

TEST(Registry, Resets)
{
    Registry registry;
    registry.SetDword(Service, L"Value", 1);
    registry.Reset();
    EXPECT_FALSE(registry.KeyExists(Service));
    EXPECT_TRUE(registry.KeyExists(L"\\Registry\\User"));
}

TEST(Registry, ManyThreads)
{
    Registry registry;
    std::vector<std::thread> threads;
    for (ULONG i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&, i]
            {
                for (ULONG j = 0; j < 200; ++j)
                {
                    registry.SetDword(Service, WideString(1, static_cast<WCHAR>(L'a' + i)), j);
                    registry.GetValue(Service, L"a");
                    registry.ExportReg(Service);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(4u, registry.Values(Service).size());
}

TEST(RegistryDeath, ValuesNeedAKeyPath)
{
    Registry registry;
    EXPECT_DEATH(registry.SetDword(L"Relative\\Key", L"Value", 1), "registry-path: \"Relative");
}

TEST(Registry, TellsOfValuesThatTheSystemWrites)
{
    Registry registry;
    registry.CreateKey(Service);
    const std::shared_ptr<RegistryKey> key = registry.FindKey(nullptr, Service);
    int writes = 0;
    registry.SetWriteHook([&writes] { ++writes; });
    registry.SetDword(Service, L"a", 1);
    EXPECT_EQ(writes, 0);
    EXPECT_TRUE(registry.WriteValue(*key, L"a", REG_DWORD, Units({2, 0})));
    EXPECT_EQ(writes, 1);
    registry.DeleteKey(Service);
    EXPECT_FALSE(registry.WriteValue(*key, L"a", REG_DWORD, Units({3, 0})));
    EXPECT_EQ(writes, 1);
    registry.Reset();
    registry.CreateKey(Service);
    EXPECT_TRUE(registry.WriteValue(*registry.FindKey(nullptr, Service), L"a", REG_DWORD, Units({4, 0})));
    EXPECT_EQ(writes, 2);
    registry.SetWriteHook({});
    EXPECT_TRUE(registry.WriteValue(*registry.FindKey(nullptr, Service), L"a", REG_DWORD, Units({5, 0})));
    EXPECT_EQ(writes, 2);
}
}
}
