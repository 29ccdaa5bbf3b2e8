// The requests of the host's kernel, by kind. Each answers its request exactly once, and uses no handle of the request
// after that: the program may have closed it by then.
#pragma once

#include "live/mount/fuse_api.h"

namespace live
{
// name_operations.cpp
void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name);
void Forget(fuse_req_t request, fuse_ino_t node, uint64_t lookups);
void ForgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets);
void MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device);
void MakeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode);
void MakeSymbolicLink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name);
void ReadSymbolicLink(fuse_req_t request, fuse_ino_t node);
void RemoveFile(fuse_req_t request, fuse_ino_t parent, const char* name);
void RemoveDirectory(fuse_req_t request, fuse_ino_t parent, const char* name);
void Link(fuse_req_t request, fuse_ino_t node, fuse_ino_t newParent, const char* newName);
void Rename(
    fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName, unsigned flags);

// file_operations.cpp
void Open(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* info);
void Read(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info* info);
void Write(fuse_req_t request, fuse_ino_t node, const char* data, size_t size, off_t offset, fuse_file_info* info);
void Release(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void Synchronize(fuse_req_t request, fuse_ino_t node, int dataOnly, fuse_file_info* info);
void Allocate(fuse_req_t request, fuse_ino_t node, int mode, off_t offset, off_t length, fuse_file_info* info);

// directory_operations.cpp
void OpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void ReadDirectory(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info* info);

// attribute_operations.cpp
void GetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void SetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which, fuse_file_info* info);
void GetVolumeStatistics(fuse_req_t request, fuse_ino_t node);

// extended_attribute_operations.cpp
void SetExtended(fuse_req_t request, fuse_ino_t node, const char* name, const char* value, size_t size, int flags);
void GetExtended(fuse_req_t request, fuse_ino_t node, const char* name, size_t size);
void ListExtended(fuse_req_t request, fuse_ino_t node, size_t size);
void RemoveExtended(fuse_req_t request, fuse_ino_t node, const char* name);
}
