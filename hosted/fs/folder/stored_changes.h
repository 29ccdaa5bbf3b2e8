// The changes that a folder file system makes to files that Linux keeps, all in one place where tests can look at them.
#pragma once

#include "hosted/fs/linux_files.h"

#include <string>

namespace hosted
{
// What is about to be done.
struct StoredChange
{
    int File;         // the file, or the directory whose entries change
    const void* Data; // what is written; null for changes of another kind
    size_t Length;
    LONGLONG Offset;
};
// For tests, which learn of every change before it is made. Null: nobody looks.
void SetStoredChangeWatcher(void (*watcher)(const StoredChange&));

// The changes themselves: 0 or an error number.
// All bytes are written unless there is an error; *written then says how many were.
int WriteStored(int file, const void* data, size_t length, LONGLONG offset, size_t* written);
int TruncateStored(int file, LONGLONG size);
int RemoveStored(int directory, const std::string& name);
// A new file, opened for writing; none on failure, with errno.
Descriptor CreateStored(int directory, const std::string& name);
}
