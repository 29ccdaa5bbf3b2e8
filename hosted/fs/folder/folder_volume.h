// A file system whose directories and files are those of a folder of the host system, found when they are asked for.
#pragma once

#include "hosted/io/volume.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace hosted
{
struct FolderOptions
{
    std::string Folder; // of the host system; exists
    // Opens for writing data, creation and changes of names fail with STATUS_MEDIA_WRITE_PROTECTED, and symbolic links
    // inside of a path are followed. Otherwise such a path ends with STATUS_STOPPED_ON_SYMLINK, as one does at a
    // link itself in both cases unless the open has FILE_OPEN_REPARSE_POINT.
    bool ReadOnly = false;
    // A folder of the host system that is not there for this volume, by its path; empty: none. Where this process
    // itself serves a folder, a look at it would wait for its own answer.
    std::string Without = {};
};

// Names are case-sensitive; there are no 8.3 names, no alternate streams and no opens by file id. All links of a file
// share one control block. An empty name relative to an open file opens it once more, even when its name is gone, as
// the host's programs may. Nothing outside of the folder is reached, nor (but with ReadOnly) what is mounted below it.
// A folder that cannot be opened is a bug check. `volume` (its sector size and disk device are
// used) must outlive the file system; the device may be made later, before the first open.
//
// However the process ends, bytes that were flushed before stay readable through a filter that enciphers blocks of 16
// bytes and treats the bytes of a last, shorter block in another way: the stored file is never left with a size under
// which its last block was not written. See folder_stream.h.
std::unique_ptr<FileSystem> CreateFolderFileSystem(Volume& volume, FolderOptions options);

// What a creating program of the host system says about the file that it makes; travels as the extended attributes of
// the create (OpenRequest::Ea). Without it files get mode 0666 and directories 0777, less the process's mask.
struct FolderCreation
{
    // The permissions exactly as they shall be, and for nodes the type: S_IFIFO, S_IFSOCK, S_IFCHR, S_IFBLK.
    mode_t Mode = 0;
    bool SetOwner = false;
    uid_t Owner = 0;
    gid_t Group = 0;                  // not where the directory gives its own group on
    const char* LinkTarget = nullptr; // makes a symbolic link; with FILE_OPEN_REPARSE_POINT
    dev_t Device = 0;                 // for S_IFCHR and S_IFBLK
};

// What the host knows of an open file and requests do not carry. Past the filters; `file` must be open on a folder
// file system, not as a volume. PASSIVE_LEVEL; no locks.

// A descriptor of the object itself, valid while the file object is open: for fstat, for permissions and extended
// attributes through /proc/self/fd, for readlink. Not to be read or written.
int FolderDescriptor(PFILE_OBJECT file);
// What programs shall see: st_size is the stream's size at this moment, which the stored file may not have yet, and
// the time of the last write is that of the program's write. 0 or an error number.
int FolderStat(PFILE_OBJECT file, struct stat* info);
// As futimens(2), to the nanosecond. 0 or an error number.
int FolderSetTimes(PFILE_OBJECT file, const timespec times[2]);
// Makes room in the store for bytes that will be written later, inside the size or past it, which does not change; on a
// data stream. STATUS_DISK_FULL; where the store cannot keep room free, success.
NTSTATUS FolderReserve(PFILE_OBJECT file, LONGLONG offset, LONGLONG length);

// Between the bytes of one component and its characters. Characters that names cannot hold here (" * : < > ? \ | and
// 1 to 31, and a space or full stop at the end) are shown as U+F000 + code. False for bytes that are no UTF-8, that
// hold a character from U+F000 to U+F0FF, which would be taken for another name, and for what is no name.
bool NameFromLinux(std::string_view bytes, WideString* name);
// Empty when no host name is shown by these characters.
std::string NameToLinux(WideView name);
}
