#include "live/control/registry_file.h"

#include "live/control/whole_file.h"

#include <stdexcept>

namespace hosted
{
namespace
{
constexpr WideView Roots[] = {L"\\Registry\\Machine", L"\\Registry\\User"};
constexpr std::string_view Utf16Mark = "\xFF\xFE";

bool IsUsed(const Registry& registry, WideView key)
{
    return !registry.Subkeys(key).empty() || !registry.Values(key).empty();
}

// Everything, each root behind one header.
std::string ExportAll(const Registry& registry)
{
    std::string text;
    for (const WideView root : Roots)
    {
        if (text.empty())
        {
            text = registry.ExportReg(root);
        }
        else if (IsUsed(registry, root))
        {
            const std::string more = registry.ExportReg(root);
            text += more.substr(more.find('\n') + 1);
        }
    }
    return text;
}

std::string ToUtf16(std::string_view text)
{
    const WideString wide = Widen(text);
    return std::string(Utf16Mark) +
           std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(WCHAR));
}
}

RegistryFile::RegistryFile(const std::string& path, Trouble trouble, Registry& registry)
    : path_(ResolveFile(path)), trouble_(std::move(trouble)), registry_(registry)
{
    const std::optional<std::string> text = ReadWholeFile(path_);
    existed_ = text.has_value();
    if (text)
    {
        std::string error;
        if (!registry_.ImportReg(*text, &error))
        {
            throw std::runtime_error(path_ + ": " + error);
        }
        isUtf16_ = text->starts_with(Utf16Mark);
    }
    writer_ = std::thread([this] { WriteChanges(); });
    registry_.SetWriteHook([this] { Changed(); });
}

RegistryFile::~RegistryFile()
{
    registry_.SetWriteHook({});
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        // One more attempt.
        changes_ += failed_ ? 1 : 0;
    }
    changed_.notify_one();
    writer_.join();
}

void RegistryFile::Flush()
{
    std::unique_lock lock(mutex_);
    const unsigned long long until = changes_;
    written_.wait(lock, [this, until] { return tried_ >= until; });
}

void RegistryFile::Changed()
{
    const std::lock_guard lock(mutex_);
    ++changes_;
    changed_.notify_one();
}

void RegistryFile::WriteChanges()
{
    std::unique_lock lock(mutex_);
    for (;;)
    {
        changed_.wait(lock, [this] { return ending_ || tried_ != changes_; });
        if (tried_ == changes_)
        {
            return;
        }
        const unsigned long long until = changes_;
        lock.unlock();
        std::string trouble;
        try
        {
            const std::string text = ExportAll(registry_);
            ReplaceWholeFile(path_, isUtf16_ ? ToUtf16(text) : text);
        }
        catch (const std::exception& exception)
        {
            trouble = exception.what();
        }
        if (!trouble.empty() && trouble_)
        {
            trouble_(trouble);
        }
        lock.lock();
        tried_ = until;
        failed_ = !trouble.empty();
        written_.notify_all();
    }
}
}
