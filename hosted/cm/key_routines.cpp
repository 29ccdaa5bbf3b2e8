// The exported routines about keys and values.
#include "hosted/cm/registry_key.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/handle_table.h"

#include <algorithm>
#include <new>

namespace hosted
{
namespace
{
// Body of a key object.
struct OpenKey
{
    std::shared_ptr<RegistryKey> Key;
};

void DeleteOpenKey(void* body)
{
    static_cast<OpenKey*>(body)->~OpenKey();
}

constexpr ObjectType KeyType = {"Key", nullptr, DeleteOpenKey};

// The form of a value query's answer: a fixed part, then what varies, each piece at its offset.
struct Answer
{
    ULONG Fixed;
    std::vector<UCHAR> Bytes;
};

void Put(std::vector<UCHAR>& bytes, size_t offset, const void* from, size_t count)
{
    bytes.resize(std::max(bytes.size(), offset + count));
    RtlCopyMemory(bytes.data() + offset, from, count);
}

Answer BasicAnswer(const NamedRegistryValue& value)
{
    ULONG nameBytes = static_cast<ULONG>(value.Name.size() * sizeof(WCHAR));
    const ULONG fixed[] = {0, value.Value.Type, nameBytes};
    Answer answer = {sizeof(fixed), {}};
    Put(answer.Bytes, 0, fixed, sizeof(fixed));
    Put(answer.Bytes, sizeof(fixed), value.Name.data(), nameBytes);
    return answer;
}

Answer FullAnswer(const NamedRegistryValue& value)
{
    ULONG nameBytes = static_cast<ULONG>(value.Name.size() * sizeof(WCHAR));
    ULONG dataBytes = static_cast<ULONG>(value.Value.Bytes.size());
    ULONG fixed[] = {0, value.Value.Type, 0, dataBytes, nameBytes};
    fixed[2] = static_cast<ULONG>(ALIGN_UP_BY(sizeof(fixed) + nameBytes, sizeof(ULONG)));
    Answer answer = {sizeof(fixed), {}};
    Put(answer.Bytes, 0, fixed, sizeof(fixed));
    Put(answer.Bytes, sizeof(fixed), value.Name.data(), nameBytes);
    Put(answer.Bytes, fixed[2], value.Value.Bytes.data(), dataBytes);
    return answer;
}

Answer PartialAnswer(const NamedRegistryValue& value)
{
    ULONG dataBytes = static_cast<ULONG>(value.Value.Bytes.size());
    const ULONG fixed[] = {0, value.Value.Type, dataBytes};
    static_assert(sizeof(fixed) == offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data));
    Answer answer = {sizeof(fixed), {}};
    Put(answer.Bytes, 0, fixed, sizeof(fixed));
    Put(answer.Bytes, sizeof(fixed), value.Value.Bytes.data(), dataBytes);
    return answer;
}

NTSTATUS Deliver(const Answer& answer, PVOID buffer, ULONG length, PULONG resultLength)
{
    *resultLength = static_cast<ULONG>(answer.Bytes.size());
    if (length < answer.Fixed)
    {
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(buffer, answer.Bytes.data(), std::min<size_t>(length, answer.Bytes.size()));
    return length < answer.Bytes.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// A key object with a reference for the caller.
NTSTATUS ReferenceKey(HANDLE handle, OpenKey** key)
{
    void* body;
    NTSTATUS status = TableOf(handle).Reference(handle, 0, &KeyType, KernelMode, &body);
    *key = static_cast<OpenKey*>(body);
    return status;
}

// Why an absolute path led to no key.
NTSTATUS MissingKeyStatus(WideView path)
{
    PathParts parts = SplitKeyPath(path);
    return EqualNoCase(parts.First, L"Registry") || parts.Rest.empty() ? STATUS_OBJECT_NAME_NOT_FOUND
                                                                       : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS FindAttributesKey(const OBJECT_ATTRIBUTES& attributes, std::shared_ptr<RegistryKey>* key)
{
    if (attributes.Length != sizeof(OBJECT_ATTRIBUTES))
    {
        return STATUS_INVALID_PARAMETER;
    }
    WideView path = attributes.ObjectName != nullptr ? View(*attributes.ObjectName) : WideView();
    if (attributes.ObjectName != nullptr && attributes.ObjectName->Length % sizeof(WCHAR) != 0)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    bool absolute = !path.empty() && path[0] == L'\\';
    if (attributes.RootDirectory == nullptr)
    {
        if (!absolute)
        {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        *key = SystemRegistry().FindKey(nullptr, path);
        return *key != nullptr ? STATUS_SUCCESS : MissingKeyStatus(path);
    }
    if (absolute)
    {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    OpenKey* root;
    NTSTATUS status = ReferenceKey(attributes.RootDirectory, &root);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    bool deleted = SystemRegistry().IsDeleted(*root->Key);
    *key = SystemRegistry().FindKey(root->Key, path);
    DereferenceObject(root);
    if (deleted)
    {
        return STATUS_KEY_DELETED;
    }
    return *key != nullptr ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS QueryValue(
    const RegistryKey& key, WideView name, KEY_VALUE_INFORMATION_CLASS kind, PVOID buffer, ULONG length, PULONG used)
{
    if (SystemRegistry().IsDeleted(key))
    {
        return STATUS_KEY_DELETED;
    }
    std::optional<NamedRegistryValue> value = SystemRegistry().ReadValue(key, name);
    if (!value)
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    switch (kind)
    {
    case KeyValueBasicInformation:
        return Deliver(BasicAnswer(*value), buffer, length, used);
    case KeyValueFullInformation:
        return Deliver(FullAnswer(*value), buffer, length, used);
    case KeyValuePartialInformation:
        return Deliver(PartialAnswer(*value), buffer, length, used);
    }
    return STATUS_INVALID_PARAMETER;
}

WideView ValueNameOf(PUNICODE_STRING name)
{
    return name != nullptr ? View(*name) : WideView();
}
}
}

extern "C" NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ZwOpenKey");
    if (InjectFailure("ZwOpenKey"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::shared_ptr<RegistryKey> key;
    NTSTATUS status = FindAttributesKey(*ObjectAttributes, &key);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    void* body = CreateObject(KeyType, sizeof(OpenKey));
    new (body) OpenKey{std::move(key)};
    *KeyHandle = TableFor(ObjectAttributes->Attributes).Insert(body, DesiredAccess);
    DereferenceObject(body);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
    KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ZwQueryValueKey");
    if (ResultLength == nullptr)
    {
        BugCheck("null-pointer", "ZwQueryValueKey without a place for the length");
    }
    if (InjectFailure("ZwQueryValueKey"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    OpenKey* open;
    NTSTATUS status = ReferenceKey(KeyHandle, &open);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    status = QueryValue(
        *open->Key, ValueNameOf(ValueName), KeyValueInformationClass, KeyValueInformation, Length, ResultLength);
    DereferenceObject(open);
    return status;
}

extern "C" NTSTATUS NTAPI ZwSetValueKey(
    HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG, ULONG Type, PVOID Data, ULONG DataSize)
{
    using namespace hosted;
    RequireIrql(PASSIVE_LEVEL, "ZwSetValueKey");
    if (InjectFailure("ZwSetValueKey"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    OpenKey* open;
    NTSTATUS status = ReferenceKey(KeyHandle, &open);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    std::span<const UCHAR> bytes(static_cast<const UCHAR*>(Data), DataSize);
    bool written = SystemRegistry().WriteValue(*open->Key, ValueNameOf(ValueName), Type, bytes);
    DereferenceObject(open);
    return written ? STATUS_SUCCESS : STATUS_KEY_DELETED;
}
