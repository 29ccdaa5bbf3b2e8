// Files of the host system, as the stores and the folder file system use them.
#pragma once

#include "common/descriptor.h"

#include <ntifs.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace hosted
{
// The status for a failure of the host system's file routines.
NTSTATUS StatusFromErrno(int error);

// Between the host's times and the system's (units of 100 ns since 1601).
LONGLONG SystemTimeOf(const timespec& time);
timespec LinuxTimeOf(LONGLONG systemTime);

using common::Descriptor;

// Where a path is looked up.
enum class LookupRule
{
    Strict,      // below the directory, on its mount, following no symbolic link
    FollowLinks, // with the directory in the part of the root; links but the last component are followed
};

// Opens what a relative path ("" is the directory itself) leads to; a symbolic link at the end is opened itself, which
// takes O_PATH. The descriptor is closed at an exec. Without success errno tells why.
Descriptor OpenBelow(int directory, const std::string& path, int flags, LookupRule rule);
// Opens once more what a descriptor stands for, which is no symbolic link.
Descriptor Reopen(int descriptor, int flags);
// A path by which routines without a descriptor variant reach what a descriptor stands for.
std::string DescriptorPath(int descriptor);

// What is about to be done to the files of a folder file system.
struct LinuxChange
{
    int File;         // the file, or the directory whose entries change
    const void* Data; // what is written; null for changes of another kind
    size_t Length;
    LONGLONG Offset;
};
// For tests, which learn of every change to stored bytes before it is made. Null: nobody looks.
void SetLinuxChangeWatcher(void (*watcher)(const LinuxChange&));

// Changes of stored bytes. 0 or an error number.
// All bytes are written unless there is an error; *written then says how many were.
int LinuxWrite(int file, const void* data, size_t length, LONGLONG offset, size_t* written);
int LinuxTruncate(int file, LONGLONG size);
int LinuxRemove(int directory, const std::string& name);
// A new file, opened for writing.
Descriptor LinuxCreate(int directory, const std::string& name);
}
