// The registry from the outside: what an installer or an administrator does.
#pragma once

#include "common/mutex.h"
#include "hosted/rtl/wide_string.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace hosted
{
struct RegistryValue
{
    ULONG Type;
    std::vector<UCHAR> Bytes;
};

struct NamedRegistryValue
{
    WideString Name; // as it was first written
    RegistryValue Value;
};

struct RegistryKey;

// Keys and values by name, without regard to case. Paths are absolute, "\Registry\Machine\SOFTWARE\...". The value
// with the empty name is the key's default value. Thread-safe. Any IRQL.
class Registry
{
public:
    Registry();
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // Makes the key and those above it where they are missing. False when the path is not below "\Registry".
    bool CreateKey(WideView path);
    // With everything below it. False when there is none.
    bool DeleteKey(WideView path);
    bool KeyExists(WideView path) const;
    // Names directly below a key, sorted; empty when the key does not exist.
    std::vector<WideString> Subkeys(WideView path) const;
    std::vector<NamedRegistryValue> Values(WideView path) const;

    // The key is made where it is missing.
    void SetValue(WideView key, WideView name, ULONG type, std::span<const UCHAR> bytes);
    // Stores the characters and a terminator.
    void SetString(WideView key, WideView name, WideView text, ULONG type = REG_SZ);
    void SetDword(WideView key, WideView name, ULONG value);
    void SetBinary(WideView key, WideView name, std::span<const UCHAR> bytes);
    // Each string with its terminator, and the empty string that ends the list.
    void SetMultiString(WideView key, WideView name, const std::vector<WideString>& strings);
    // False when there is none.
    bool DeleteValue(WideView key, WideView name);
    std::optional<RegistryValue> GetValue(WideView key, WideView name) const;

    // .reg text: "Windows Registry Editor Version 5.00", in UTF-8 or UTF-16 (by its byte order mark). All of it or,
    // when it cannot be understood, nothing; *error then names the line and the reason.
    bool ImportReg(std::string_view text, std::string* error = nullptr);
    // A key with all below it as .reg text in UTF-8; just the header when the key does not exist.
    std::string ExportReg(WideView key) const;

    // Everything but the roots goes. Open key handles then refer to deleted keys.
    void Reset();

    // Called after each value that the system wrote while it ran (ZwSetValueKey), on the writing thread, which may hold
    // locks of its own; it must not ask the registry anything. One at a time; an empty one takes it away, and then no
    // call is under way. A reset keeps it.
    void SetWriteHook(std::function<void()> hook);

    // For the exported routines: the key itself, kept alive by the pointer, and its contents under the lock.
    // `relativeTo` null: an absolute path.
    std::shared_ptr<RegistryKey> FindKey(const std::shared_ptr<RegistryKey>& relativeTo, WideView path) const;
    std::optional<NamedRegistryValue> ReadValue(const RegistryKey& key, WideView name) const;
    // False when the key was deleted.
    bool WriteValue(RegistryKey& key, WideView name, ULONG type, std::span<const UCHAR> bytes);
    bool IsDeleted(const RegistryKey& key) const;

private:
    std::shared_ptr<RegistryKey> FindLocked(std::shared_ptr<RegistryKey> key, WideView path) const REQUIRES_LOCK(lock_);
    std::shared_ptr<RegistryKey> CreateLocked(WideView path) REQUIRES_LOCK(lock_);
    void MakeRoots() REQUIRES_LOCK(lock_);

    mutable common::Mutex lock_; // also guards what the keys hold
    std::shared_ptr<RegistryKey> root_ GUARDED_BY(lock_);
    common::Mutex hookLock_;
    std::function<void()> writeHook_ GUARDED_BY(hookLock_);
};

// The running machine's.
Registry& SystemRegistry();
}
