// The records that answer a directory query.
#pragma once

#include "hosted/fs/file_facts.h"

#include <string>

namespace hosted
{
// The bytes of a record up to the name; 0 for what is no class of directory queries.
ULONG DirectoryRecordHead(FILE_INFORMATION_CLASS kind);

// A record with its name, as the only one of an answer.
std::string DirectoryRecord(const ListedFile& file, FILE_INFORMATION_CLASS kind);

// Puts a record behind those that an answer has already, the last of which begins at *last. False, with nothing
// changed, where the answer would get longer than `room` bytes.
bool AppendDirectoryRecord(std::string* answer, size_t* last, const std::string& record, size_t room);
}
