#include "hosted/cm/registry_key.h"

#include "hosted/ke/bug_check.h"

namespace hosted
{
namespace
{
constexpr WideView RootName = L"Registry";

std::vector<UCHAR> BytesOf(WideView text)
{
    const auto* bytes = reinterpret_cast<const UCHAR*>(text.data());
    return {bytes, bytes + text.size() * sizeof(WCHAR)};
}

void MarkDeleted(RegistryKey& key)
{
    key.Deleted = true;
    for (const auto& [name, subkey] : key.Subkeys)
    {
        MarkDeleted(*subkey);
    }
}

void Store(RegistryKey& key, WideView name, ULONG type, std::span<const UCHAR> bytes)
{
    RegistryValue value = {type, {bytes.begin(), bytes.end()}};
    auto found = key.Values.find(name);
    if (found != key.Values.end())
    {
        found->second = std::move(value);
        return;
    }
    key.Values.emplace(WideString(name), std::move(value));
}
}

PathParts SplitKeyPath(WideView path)
{
    while (!path.empty() && path[0] == L'\\')
    {
        path.remove_prefix(1);
    }
    size_t end = path.find(L'\\');
    return end == WideView::npos ? PathParts{path, {}} : PathParts{path.substr(0, end), path.substr(end + 1)};
}

Registry::Registry() : root_(std::make_shared<RegistryKey>())
{
    MakeRoots();
}

Registry::~Registry() = default;

void Registry::MakeRoots()
{
    root_->Name = RootName;
    CreateLocked(L"\\Registry\\Machine");
    CreateLocked(L"\\Registry\\User");
}

std::shared_ptr<RegistryKey> Registry::FindLocked(std::shared_ptr<RegistryKey> key, WideView path) const
{
    for (PathParts parts = SplitKeyPath(path); !parts.First.empty(); parts = SplitKeyPath(parts.Rest))
    {
        auto found = key->Subkeys.find(parts.First);
        if (found == key->Subkeys.end())
        {
            return nullptr;
        }
        key = found->second;
    }
    return key;
}

std::shared_ptr<RegistryKey> Registry::FindKey(const std::shared_ptr<RegistryKey>& relativeTo, WideView path) const
{
    common::Guard lock(lock_);
    if (relativeTo != nullptr)
    {
        return FindLocked(relativeTo, path);
    }
    PathParts parts = SplitKeyPath(path);
    return EqualNoCase(parts.First, RootName) ? FindLocked(root_, parts.Rest) : nullptr;
}

std::shared_ptr<RegistryKey> Registry::CreateLocked(WideView path)
{
    PathParts parts = SplitKeyPath(path);
    if (!EqualNoCase(parts.First, RootName))
    {
        return nullptr;
    }
    std::shared_ptr<RegistryKey> key = root_;
    for (parts = SplitKeyPath(parts.Rest); !parts.First.empty(); parts = SplitKeyPath(parts.Rest))
    {
        auto found = key->Subkeys.find(parts.First);
        if (found == key->Subkeys.end())
        {
            auto created = std::make_shared<RegistryKey>();
            created->Name = parts.First;
            found = key->Subkeys.emplace(created->Name, created).first;
        }
        key = found->second;
    }
    return key;
}

bool Registry::CreateKey(WideView path)
{
    common::Guard lock(lock_);
    return CreateLocked(path) != nullptr;
}

bool Registry::DeleteKey(WideView path)
{
    size_t end = path.find_last_not_of(L'\\');
    path = path.substr(0, end == WideView::npos ? 0 : end + 1);
    size_t slash = path.rfind(L'\\');
    if (slash == WideView::npos)
    {
        return false;
    }
    std::shared_ptr<RegistryKey> parent = FindKey(nullptr, path.substr(0, slash));
    common::Guard lock(lock_);
    if (parent == nullptr)
    {
        return false;
    }
    auto found = parent->Subkeys.find(path.substr(slash + 1));
    if (found == parent->Subkeys.end())
    {
        return false;
    }
    MarkDeleted(*found->second);
    parent->Subkeys.erase(found);
    return true;
}

bool Registry::KeyExists(WideView path) const
{
    return FindKey(nullptr, path) != nullptr;
}

std::vector<WideString> Registry::Subkeys(WideView path) const
{
    std::vector<WideString> names;
    std::shared_ptr<RegistryKey> key = FindKey(nullptr, path);
    if (key == nullptr)
    {
        return names;
    }
    common::Guard lock(lock_);
    for (const auto& [name, subkey] : key->Subkeys)
    {
        names.push_back(name);
    }
    return names;
}

std::vector<NamedRegistryValue> Registry::Values(WideView path) const
{
    std::vector<NamedRegistryValue> values;
    std::shared_ptr<RegistryKey> key = FindKey(nullptr, path);
    if (key == nullptr)
    {
        return values;
    }
    common::Guard lock(lock_);
    for (const auto& [name, value] : key->Values)
    {
        values.push_back({name, value});
    }
    return values;
}

void Registry::SetValue(WideView key, WideView name, ULONG type, std::span<const UCHAR> bytes)
{
    common::Guard lock(lock_);
    std::shared_ptr<RegistryKey> target = CreateLocked(key);
    if (target == nullptr)
    {
        BugCheck("registry-path", "\"%s\" is no absolute key path", Narrow(key).c_str());
    }
    Store(*target, name, type, bytes);
}

void Registry::SetString(WideView key, WideView name, WideView text, ULONG type)
{
    SetValue(key, name, type, BytesOf(WideString(text) + WCHAR{0}));
}

void Registry::SetDword(WideView key, WideView name, ULONG value)
{
    SetValue(key, name, REG_DWORD, {reinterpret_cast<const UCHAR*>(&value), sizeof(value)});
}

void Registry::SetBinary(WideView key, WideView name, std::span<const UCHAR> bytes)
{
    SetValue(key, name, REG_BINARY, bytes);
}

void Registry::SetMultiString(WideView key, WideView name, const std::vector<WideString>& strings)
{
    WideString all;
    for (const WideString& string : strings)
    {
        all += string;
        all += WCHAR{0};
    }
    SetValue(key, name, REG_MULTI_SZ, BytesOf(all + WCHAR{0}));
}

bool Registry::DeleteValue(WideView key, WideView name)
{
    std::shared_ptr<RegistryKey> target = FindKey(nullptr, key);
    common::Guard lock(lock_);
    if (target == nullptr)
    {
        return false;
    }
    auto found = target->Values.find(name);
    if (found == target->Values.end())
    {
        return false;
    }
    target->Values.erase(found);
    return true;
}

std::optional<RegistryValue> Registry::GetValue(WideView key, WideView name) const
{
    std::shared_ptr<RegistryKey> target = FindKey(nullptr, key);
    if (target == nullptr)
    {
        return std::nullopt;
    }
    std::optional<NamedRegistryValue> value = ReadValue(*target, name);
    return value ? std::optional(std::move(value->Value)) : std::nullopt;
}

std::optional<NamedRegistryValue> Registry::ReadValue(const RegistryKey& key, WideView name) const
{
    common::Guard lock(lock_);
    auto found = key.Values.find(name);
    if (found == key.Values.end())
    {
        return std::nullopt;
    }
    return NamedRegistryValue{found->first, found->second};
}

bool Registry::WriteValue(RegistryKey& key, WideView name, ULONG type, std::span<const UCHAR> bytes)
{
    {
        common::Guard lock(lock_);
        if (key.Deleted)
        {
            return false;
        }
        Store(key, name, type, bytes);
    }
    common::Guard lock(hookLock_);
    if (writeHook_)
    {
        writeHook_();
    }
    return true;
}

void Registry::SetWriteHook(std::function<void()> hook)
{
    common::Guard lock(hookLock_);
    writeHook_ = std::move(hook);
}

bool Registry::IsDeleted(const RegistryKey& key) const
{
    common::Guard lock(lock_);
    return key.Deleted;
}

void Registry::Reset()
{
    common::Guard lock(lock_);
    MarkDeleted(*root_);
    root_ = std::make_shared<RegistryKey>();
    MakeRoots();
}

Registry& SystemRegistry()
{
    static Registry& registry = *new Registry;
    return registry;
}
}
