#include "hosted/fs/store/open_files.h"

#include <cerrno>
#include <fcntl.h>

namespace hosted
{
namespace
{
constexpr size_t MostOpenFiles = 64;
}

std::shared_ptr<const Descriptor> OpenFiles::Find(const Key& key)
{
    auto found = open_.find(key);
    if (found == open_.end())
    {
        return nullptr;
    }
    recent_.splice(recent_.begin(), recent_, found->second.Recent);
    return found->second.File;
}

std::shared_ptr<const Descriptor> OpenFiles::Open(const Key& key, const std::string& path)
{
    Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!file && (errno == EACCES || errno == EROFS))
    {
        file = Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!file)
    {
        return nullptr;
    }
    if (open_.size() >= MostOpenFiles)
    {
        const Key coldest = recent_.back();
        Forget(coldest);
    }
    recent_.push_front(key);
    auto opened = std::make_shared<const Descriptor>(std::move(file));
    open_[key] = {opened, recent_.begin()};
    return opened;
}

void OpenFiles::Forget(const Key& key)
{
    auto found = open_.find(key);
    if (found != open_.end())
    {
        recent_.erase(found->second.Recent);
        open_.erase(found);
    }
}
}
