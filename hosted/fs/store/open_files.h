// The files of a folder that are open at the moment, so that a transfer need not open its file anew.
#pragma once

#include "hosted/fs/linux_files.h"

#include <list>
#include <map>
#include <memory>
#include <string>

namespace hosted
{
// Keeps no more than a fixed number of files open, those that were used last. Calls come one at a time; a file that
// somebody still uses stays open beyond that.
class OpenFiles
{
public:
    // A stream of a file, by the file's id.
    using Key = std::pair<ULONGLONG, std::string>;

    // Null when the file is not open.
    std::shared_ptr<const Descriptor> Find(const Key& key);
    // Opens it, for reading only where Linux allows no more. Null on failure, with errno.
    std::shared_ptr<const Descriptor> Open(const Key& key, const std::string& path);
    void Forget(const Key& key);

private:
    struct Entry
    {
        std::shared_ptr<const Descriptor> File;
        std::list<Key>::iterator Recent;
    };

    std::list<Key> recent_; // the most recently used first
    std::map<Key, Entry> open_;
};
}
