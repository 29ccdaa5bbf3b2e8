// Files of Linux, as both kinds of file system use them.
#pragma once

#include "common/descriptor.h"

#include <ntifs.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace hosted
{
// The status for an error number of the file routines of Linux.
NTSTATUS StatusFromErrno(int error);

// Between the times of Linux and those of the system (units of 100 ns since 1601).
LONGLONG SystemTimeOf(const timespec& time);
timespec LinuxTimeOf(LONGLONG systemTime);

using common::Descriptor;

// Where a path is looked up.
enum class LookupRule
{
    Strict,      // below the directory, on its mount, following no symbolic link
    FollowLinks, // links inside of the path are followed, as if the directory were the root
};

// Opens what a relative path ("" is the directory itself) leads to; a symbolic link at its end is itself opened, which
// takes O_PATH. The descriptor is closed at an exec. None on failure, with errno.
Descriptor OpenBelow(int directory, const std::string& path, int flags, LookupRule rule);
// Opens once more what a descriptor stands for, which must not be a symbolic link.
Descriptor Reopen(int descriptor, int flags);
// A path by which routines without a descriptor variant reach what a descriptor stands for.
std::string DescriptorPath(int descriptor);
}
