#include "driver/config/product_settings.h"

#include "driver/config/base64.h"
#include "driver/util/registry_value.h"
#include "driver/util/debug_print.h"

namespace
{
// The decoded installer type ends in the mode's digit and the magic code, the eighth character of the text.
constexpr ULONG DigitIndex = 6;
constexpr ULONG MagicIndex = 7;
constexpr WCHAR MagicCode = L'@';
constexpr ULONG LeastTypeBytes = (MagicIndex + 1) * sizeof(WCHAR);

// A value of the product key, by name.
class ProductValue
{
public:
    explicit ProductValue(PCWSTR name) : path_(CountedView(ProductKeyPath)), name_(CountedView(name)) {}

    // Prints what fails and returns its status; a value that is there but cannot be read gives `unreadable` instead,
    // unless that is a success.
    NTSTATUS Read(NTSTATUS unreadable)
    {
        KernelHandle key;
        NTSTATUS status = OpenRegistryKey(&path_, KEY_READ, &key);
        if (!NT_SUCCESS(status))
        {
            PrintWithDriverName("Failed to ZwOpenKey. Path = %wZ NTStatus = %x\n", &path_, status);
            return status;
        }
        ULONG size = 0;
        status = AskRegistryValueSize(key.Get(), &name_, &size);
        if (!IsSizeAnswer(status))
        {
            PrintQueryFailure(status);
            return status;
        }
        Value = AllocateRegistryValue(size);
        if (!Value)
        {
            PrintWithDriverName("PartialInfo allocate error\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        status = QueryRegistryValue(key.Get(), &name_, size, Value);
        if (!NT_SUCCESS(status))
        {
            PrintQueryFailure(status);
            return NT_SUCCESS(unreadable) ? status : unreadable;
        }
        return status;
    }

    RegistryValue Value;

private:
    void PrintQueryFailure(NTSTATUS status) const
    {
        PrintWithDriverName(
            "Failed to ZwQueryValueKey. Path = %wZ ValueName = %wZ NTStatus = %x\n", &path_, &name_, status);
    }

    UNICODE_STRING path_;
    UNICODE_STRING name_;
};

bool IsTypeUsable(const RegistryValue& value)
{
    if (value->Type != REG_BINARY)
    {
        PrintWithDriverName("(InstallerType) Unexpected REG_XXX type = %08x\n", value->Type);
        return false;
    }
    if (value->DataLength == 0)
    {
        PrintWithDriverName("(InstallerType) DataLength is Zero\n");
        return false;
    }
    if (value->DataLength < LeastTypeBytes)
    {
        PrintWithDriverName("(InstallerType) DataLength is too short. (size = %d)\n", value->DataLength);
        return false;
    }
    return true;
}

LONG ModeOfDigit(WCHAR digit)
{
    return digit >= L'0' && digit <= L'2' ? digit - L'0' : InstallerModeUnknown;
}

// The decoded text never fills the buffer, whose rest stays zero and so terminates it.
NTSTATUS DecodeType(const ProductValue& type, PoolPointer<WCHAR>* text)
{
    ULONG bytes = type.Value->DataLength;
    *text = PoolPointer<WCHAR>::Allocate(bytes);
    if (!*text)
    {
        PrintWithDriverName("Binary allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto encoded = reinterpret_cast<PCWSTR>(type.Value->Data);
    // Eight bytes of text give three, so the room is always enough.
    DecodeBase64(encoded, bytes / sizeof(WCHAR), reinterpret_cast<PUCHAR>(text->Get()), &bytes);
    return STATUS_SUCCESS;
}
}

NTSTATUS ReadInstallerMode(PLONG mode)
{
    *mode = InstallerModeUnknown;
    ProductValue type(L"InstallerType");
    NTSTATUS status = type.Read(STATUS_UNSUCCESSFUL);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (!IsTypeUsable(type.Value))
    {
        return STATUS_UNSUCCESSFUL;
    }
    PoolPointer<WCHAR> text;
    status = DecodeType(type, &text);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    PrintWithDriverName("Decoded InstallerType = %ws\n", text.Get());
    if (text[MagicIndex] != MagicCode)
    {
        PrintWithDriverName("Invalid Magic Code = 0x%04X\n", text[MagicIndex]);
        return STATUS_UNSUCCESSFUL;
    }
    *mode = ModeOfDigit(text[DigitIndex]);
    PrintWithDriverName("Installer Mode = %d\n", *mode);
    return STATUS_SUCCESS;
}

NTSTATUS ReadProductPath(CountedString* path)
{
    ProductValue folder(L"InstallFolder");
    NTSTATUS status = folder.Read(STATUS_SUCCESS);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (folder.Value->Type != REG_SZ)
    {
        PrintWithDriverName("(InstallFolder) Unexpected REG_XXX type = %08x\n", folder.Value->Type);
        return STATUS_UNSUCCESSFUL;
    }
    if (folder.Value->DataLength == 0)
    {
        PrintWithDriverName("(InstallFolder) DataLength is Zero\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (!path->Allocate(folder.Value->DataLength))
    {
        PrintWithDriverName("ProductPath->Buffer allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    path->Append(TextOfValue(folder.Value));
    PrintWithDriverName("ProductPath = %wZ\n", &path->Get());
    return STATUS_SUCCESS;
}
