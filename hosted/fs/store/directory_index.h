// The file in which a directory store keeps what an ordinary folder cannot: file ids, short names, times, attributes.
#pragma once

#include "hosted/fs/store.h"

#include <cstdio>
#include <map>
#include <string>

namespace hosted
{
// A log of lines, the later ones telling over the earlier ones, so that a change costs one short write and a torn
// last line costs one record. Calls come one at a time.
class DirectoryIndex
{
public:
    static constexpr const char* FileName = ".tarnveil-volume";
    static constexpr const char* NewFileName = ".tarnveil-volume.new";

    explicit DirectoryIndex(const std::string& folder);
    ~DirectoryIndex();
    DirectoryIndex(const DirectoryIndex&) = delete;
    DirectoryIndex& operator=(const DirectoryIndex&) = delete;

    // What the file said when it was opened; nothing where it was missing or unreadable.
    std::map<ULONGLONG, StoredNode> Records();
    void Put(const StoredNode& node);
    void Remove(ULONGLONG id);
    // Replaces the log by these records.
    void Rewrite(const std::vector<StoredNode>& nodes);

private:
    std::string folder_;
    std::FILE* log_ = nullptr;
};
}
