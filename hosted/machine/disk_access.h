// Files of the machine's volumes past the filters, for tests and tools.
#pragma once

#include "hosted/io/volume.h"

#include <string>
#include <string_view>

namespace hosted
{
// The volume that a path ("C:\a\b", an NT path) leads to and the path below it. Null when it leads to none.
Volume* FindVolume(WideView path, WideString* remainder);

// What lies on the disk, past filters and cache; false when there is no such stream.
bool ReadDiskFile(WideView path, std::string* bytes);

// Puts a file there beneath the filters, with the folders that are missing, in place of an old one. The cache then
// holds nothing of it. STATUS_SHARING_VIOLATION while somebody has it open, otherwise the status of the first step that
// failed.
NTSTATUS WriteDiskFile(WideView path, std::string_view bytes);

// The folder and those above it.
NTSTATUS MakeDiskFolder(WideView path);

// An empty file as a program's image, when there is nothing by that name.
void InstallImage(WideView path);
}
