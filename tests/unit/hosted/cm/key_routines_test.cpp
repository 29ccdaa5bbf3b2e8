
#include "hosted/cm/registry.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/event_object.h"

#include <gtest/gtest.h>

#include <cstring>

namespace hosted
{
namespace
{
constexpr WideView Service = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tarnveil";
constexpr UCHAR Untouched = 0xA5;

class KeyRoutines : public testing::Test
{
protected:
    void SetUp() override
    {
        SystemRegistry().Reset();
        kernelHandles_ = KernelHandles().Count();
        SystemRegistry().SetBinary(Service, L"SandboxCryptKey", std::vector<UCHAR>{1, 2, 3, 4, 5, 6, 7, 8, 9});
        ASSERT_EQ(STATUS_SUCCESS, Open(Service, &key_));
    }
    void TearDown() override
    {
        ResetFailures();
        EXPECT_EQ(STATUS_SUCCESS, ZwClose(key_));
        EXPECT_EQ(kernelHandles_, KernelHandles().Count());
        EXPECT_EQ(std::string::npos, DescribeLiveObjects().find("Key"));
        SystemRegistry().Reset();
    }

    NTSTATUS Open(WideView path, HANDLE* handle, HANDLE root = nullptr)
    {
        UNICODE_STRING name = Counted(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
        return ZwOpenKey(handle, KEY_READ, &attributes);
    }

    NTSTATUS Query(WideView value, KEY_VALUE_INFORMATION_CLASS kind, ULONG length)
    {
        UNICODE_STRING name = Counted(value);
        memset(buffer_, Untouched, sizeof(buffer_));
        used_ = 0xDEAD;
        return ZwQueryValueKey(key_, &name, kind, buffer_, length, &used_);
    }

    ULONG Word(size_t offset) const
    {
        ULONG word;
        memcpy(&word, buffer_ + offset, sizeof(word));
        return word;
    }

    HANDLE key_ = nullptr;
    alignas(8) UCHAR buffer_[256];
    ULONG used_ = 0;
    size_t kernelHandles_ = 0;
};

TEST_F(KeyRoutines, OpenIgnoresCaseAndATrailingBackslash)
{
    HANDLE handle;
    EXPECT_EQ(STATUS_SUCCESS, Open(L"\\REGISTRY\\machine\\SYSTEM\\currentcontrolset\\services\\tarnveil\\", &handle));
    EXPECT_LT(reinterpret_cast<LONG_PTR>(handle), 0);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_SUCCESS, Open(L"\\Registry", &handle));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
}

TEST_F(KeyRoutines, OpenFailures)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\Registry\\Machine\\None", &handle));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\Registry\\Machine\\None\\Below", &handle));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\Nowhere", &handle));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Open(L"\\Nowhere\\Key", &handle));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, Open(L"Machine\\System", &handle));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, Open(L"", &handle));
    FailRoutine("ZwOpenKey");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Open(Service, &handle));
    EXPECT_EQ(nullptr, handle);
}

TEST_F(KeyRoutines, OpenWithWrongAttributes)
{
    HANDLE handle;
    UNICODE_STRING name = Counted(Service);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, ZwOpenKey(&handle, KEY_READ, &attributes));
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    name.Length -= 1;
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, ZwOpenKey(&handle, KEY_READ, &attributes));
    attributes.Length = 0;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, ZwOpenKey(&handle, KEY_READ, &attributes));
}

TEST_F(KeyRoutines, OpenRelativeToAKey)
{
    SystemRegistry().CreateKey(WideString(Service) + L"\\Sub\\Deep");
    HANDLE handle;
    EXPECT_EQ(STATUS_SUCCESS, Open(L"sub\\DEEP", &handle, key_));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_SUCCESS, Open(L"", &handle, key_)) << "the key itself";
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"None", &handle, key_));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, Open(L"\\Registry", &handle, key_));
    EXPECT_EQ(STATUS_INVALID_HANDLE, Open(L"Sub", &handle, reinterpret_cast<HANDLE>(4000)));
    HANDLE event = CreateEventHandle(KernelHandles(), NotificationEvent, nullptr);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, Open(L"Sub", &handle, event));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(event));
}

TEST_F(KeyRoutines, PartialInformationAtEverySize)
{
    constexpr ULONG Whole = 12 + 9;
    for (ULONG length = 0; length <= Whole + 2; ++length)
    {
        NTSTATUS status = Query(L"sandboxcryptkey", KeyValuePartialInformation, length);
        EXPECT_EQ(Whole, used_);
        ULONG written = 0;
        if (length < 12)
        {
            EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, status) << length;
        }
        else
        {
            EXPECT_EQ(length < Whole ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, status) << length;
            written = std::min(length, Whole);
            EXPECT_EQ(0u, Word(0));
            EXPECT_EQ(static_cast<ULONG>(REG_BINARY), Word(4));
            EXPECT_EQ(9u, Word(8));
        }
        for (ULONG i = 12; i < written; ++i)
        {
            EXPECT_EQ(i - 11, buffer_[i]);
        }
        EXPECT_EQ(Untouched, buffer_[written]);
    }
}

TEST_F(KeyRoutines, SizeWithoutABuffer)
{
    UNICODE_STRING name = Counted(L"SandboxCryptKey");
    ULONG used = 0;
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, ZwQueryValueKey(key_, &name, KeyValuePartialInformation, nullptr, 0, &used));
    EXPECT_EQ(21u, used);
}

TEST_F(KeyRoutines, EmptyValues)
{
    SystemRegistry().SetValue(Service, L"Empty", REG_MULTI_SZ, {});
    EXPECT_EQ(STATUS_SUCCESS, Query(L"Empty", KeyValuePartialInformation, 12));
    EXPECT_EQ(12u, used_);
    EXPECT_EQ(static_cast<ULONG>(REG_MULTI_SZ), Word(4));
    EXPECT_EQ(0u, Word(8));
}

TEST_F(KeyRoutines, BasicInformation)
{
    EXPECT_EQ(STATUS_SUCCESS, Query(L"SANDBOXCRYPTKEY", KeyValueBasicInformation, 256));
    EXPECT_EQ(12u + 30u, used_);
    EXPECT_EQ(30u, Word(8));
    EXPECT_EQ(0, memcmp(buffer_ + 12, L"SandboxCryptKey", 30)) << "spelt as it was stored";
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, Query(L"SandboxCryptKey", KeyValueBasicInformation, 41));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, Query(L"SandboxCryptKey", KeyValueBasicInformation, 11));
    EXPECT_EQ(42u, used_);
}

TEST_F(KeyRoutines, FullInformation)
{
    EXPECT_EQ(STATUS_SUCCESS, Query(L"SandboxCryptKey", KeyValueFullInformation, 256));
    EXPECT_EQ(52u + 9u, used_);
    EXPECT_EQ(52u, Word(8)) << "20 + 30, rounded up to a multiple of four";
    EXPECT_EQ(9u, Word(12));
    EXPECT_EQ(30u, Word(16));
    EXPECT_EQ(0, memcmp(buffer_ + 20, L"SandboxCryptKey", 30));
    EXPECT_EQ(1, buffer_[52]);
    EXPECT_EQ(9, buffer_[60]);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, Query(L"SandboxCryptKey", KeyValueFullInformation, 60));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, Query(L"SandboxCryptKey", KeyValueFullInformation, 19));
}

TEST_F(KeyRoutines, DefaultValue)
{
    SystemRegistry().SetDword(Service, L"", 5);
    EXPECT_EQ(STATUS_SUCCESS, Query(L"", KeyValuePartialInformation, 16));
    EXPECT_EQ(5u, Word(12));
    EXPECT_EQ(STATUS_SUCCESS, ZwQueryValueKey(key_, nullptr, KeyValuePartialInformation, buffer_, 16, &used_));
}

TEST_F(KeyRoutines, QueryFailures)
{
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Query(L"None", KeyValuePartialInformation, 256));
    EXPECT_EQ(0xDEADu, used_);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Query(L"SandboxCryptKey", static_cast<KEY_VALUE_INFORMATION_CLASS>(3), 256));
    FailRoutine("ZwQueryValueKey");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Query(L"SandboxCryptKey", KeyValuePartialInformation, 256));
    EXPECT_EQ(Untouched, buffer_[0]);
    EXPECT_EQ(
        STATUS_INVALID_HANDLE, ZwQueryValueKey(nullptr, nullptr, KeyValuePartialInformation, buffer_, 16, &used_));
}

TEST_F(KeyRoutines, SetValue)
{
    UNICODE_STRING name = Counted(L"ProtectionFiles");
    UCHAR data[] = {'a', 0, 0, 0};
    EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(key_, &name, 0, REG_MULTI_SZ, data, sizeof(data)));
    std::optional<RegistryValue> value = SystemRegistry().GetValue(Service, L"ProtectionFiles");
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(static_cast<ULONG>(REG_MULTI_SZ), value->Type);
    EXPECT_EQ((std::vector<UCHAR>{'a', 0, 0, 0}), value->Bytes);
    EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(key_, nullptr, 0, REG_NONE, nullptr, 0));
    EXPECT_TRUE(SystemRegistry().GetValue(Service, L"").has_value());
    EXPECT_EQ(STATUS_INVALID_HANDLE, ZwSetValueKey(nullptr, &name, 0, REG_NONE, nullptr, 0));
    FailRoutine("ZwSetValueKey");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, ZwSetValueKey(key_, &name, 0, REG_NONE, nullptr, 0));
    EXPECT_EQ(4u, SystemRegistry().GetValue(Service, L"ProtectionFiles")->Bytes.size());
}

TEST_F(KeyRoutines, DeletedKeysStayOpenButUseless)
{
    EXPECT_TRUE(SystemRegistry().DeleteKey(Service));
    EXPECT_EQ(STATUS_KEY_DELETED, Query(L"SandboxCryptKey", KeyValuePartialInformation, 256));
    EXPECT_EQ(STATUS_KEY_DELETED, ZwSetValueKey(key_, nullptr, 0, REG_NONE, nullptr, 0));
    HANDLE handle;
    EXPECT_EQ(STATUS_KEY_DELETED, Open(L"", &handle, key_));
}

TEST_F(KeyRoutines, RulesDeath)
{
    UNICODE_STRING name = Counted(L"SandboxCryptKey");
    EXPECT_DEATH(ZwQueryValueKey(key_, &name, KeyValuePartialInformation, buffer_, 256, nullptr), "null-pointer");
    RaisedIrql apc(APC_LEVEL);
    HANDLE handle;
    EXPECT_DEATH(Open(Service, &handle), "irql-too-high: ZwOpenKey");
    EXPECT_DEATH(Query(L"SandboxCryptKey", KeyValuePartialInformation, 256), "irql-too-high: ZwQueryValueKey");
    EXPECT_DEATH(ZwSetValueKey(key_, &name, 0, REG_NONE, nullptr, 0), "irql-too-high: ZwSetValueKey");
}
}
}
