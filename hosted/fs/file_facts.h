// What programs are told of a file, whichever file system it is on.
#pragma once

#include "hosted/rtl/wide_string.h"

namespace hosted
{
struct FileFacts
{
    LONGLONG CreationTime = 0;
    LONGLONG LastAccessTime = 0;
    LONGLONG LastWriteTime = 0;
    LONGLONG ChangeTime = 0;
    ULONG Attributes = 0;
    LONGLONG Size = 0;
    ULONGLONG Id = 0;
    ULONG Links = 1;
    bool DeletePending = false;
    bool Directory = false;
};

// A file as a directory lists it.
struct ListedFile
{
    WideString Name;
    WideString ShortName; // empty: none
    FileFacts Facts;
};

// What a file of that size is said to take on the disk.
constexpr LONGLONG ClusterBytes = PAGE_SIZE;
constexpr LONGLONG AllocationFor(LONGLONG size)
{
    return (size + ClusterBytes - 1) / ClusterBytes * ClusterBytes;
}

// Attributes are never told as zero.
constexpr ULONG ToldAttributes(const FileFacts& facts)
{
    return facts.Attributes != 0 ? facts.Attributes : FILE_ATTRIBUTE_NORMAL;
}
}
