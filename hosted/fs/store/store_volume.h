// Volumes whose files are kept in a store: in memory, or below a folder that other programs leave alone.
#pragma once

#include "hosted/fs/store.h"
#include "hosted/io/volume.h"

namespace hosted
{
struct StoreOptions
{
    // Setting the end of file leaves the pages that hold the old and the new end alone, as a file system with a
    // valid-data length may, instead of writing them again under the new size.
    bool StrictEndOfFile = false;
    // Names that are not 8.3 names get one.
    bool ShortNames = true;
};

// An NTFS-like tree of files, directories and alternate streams: mounts what the store holds. `volume` (its sector size
// and disk device are used) must outlive the file system; the device may be made later, before the first open.
// Destroying it is a bug check while streams are open or dirty.
std::unique_ptr<FileSystem> CreateStoreFileSystem(
    Volume& volume, std::unique_ptr<Store> store, StoreOptions options = {});

// What a memory store keeps; shared, so that a later store over the same disk finds it again.
class MemoryDisk;
std::shared_ptr<MemoryDisk> CreateMemoryDisk();
std::unique_ptr<Store> CreateMemoryStore(std::shared_ptr<MemoryDisk> disk = CreateMemoryDisk());

// Keeps files and directories as such below an ordinary folder, which exists: the bytes of each stream in one
// ordinary file (named streams in "name:stream" next to it). Times, attributes, short names and file ids are kept in
// one small file at the top and are made anew where that is missing. Files put there by hand appear at the next
// mount. Names longer than 255 bytes of UTF-8 cannot be held.
std::unique_ptr<Store> CreateDirectoryStore(const std::string& folder);
}
