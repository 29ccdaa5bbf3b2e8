// Opening and using files, from programs down: each call here is one request that passes the filters first.
#pragma once

#include "hosted/io/volume.h"

namespace hosted
{
struct OpenRequest
{
    WideString Path;             // NT path ("\??\C:\a", "\Device\HarddiskVolume1\a"), or relative to Root
    PFILE_OBJECT Root = nullptr; // related file object
    ULONGLONG FileId = 0;        // with FILE_OPEN_BY_FILE_ID, in place of a name below Path's volume
    ACCESS_MASK DesiredAccess = FILE_READ_DATA | SYNCHRONIZE;
    ULONG ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG FileAttributes = FILE_ATTRIBUTE_NORMAL;
    UCHAR StackFlags = 0; // SL_OPEN_PAGING_FILE
    KPROCESSOR_MODE Mode = UserMode;
    const void* Ea = nullptr;  // extended attributes of what is created, as its file system takes them
    ULONG EaLength = 0;        // bytes
    ULONG FileObjectFlags = 0; // FO_MAILSLOT, FO_NAMED_PIPE, ...: set before the create is sent
};

// A path that leads to a device without a volume opens the device itself; the rest of the path is the file's name.
// On success *fileObject is referenced (the reference plays the part of a handle: give it back with CloseFile).
// *information receives FILE_OPENED, FILE_CREATED, ...; may be null.
NTSTATUS OpenFile(const OpenRequest& request, PFILE_OBJECT* fileObject, ULONG_PTR* information = nullptr);
// Cleanup (last handle) and then the release of the reference (close when it was the last).
void CloseFile(PFILE_OBJECT fileObject);

// Cached unless the file was opened without intermediate buffering; tried as fast I/O first where possible.
// The buffer may be a user address. status->Information is the count of bytes.
NTSTATUS ReadFile(PFILE_OBJECT file, LONGLONG offset, void* buffer, ULONG length, IO_STATUS_BLOCK* status);
NTSTATUS WriteFile(PFILE_OBJECT file, LONGLONG offset, const void* buffer, ULONG length, IO_STATUS_BLOCK* status);
NTSTATUS SetInformation(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, void* buffer, ULONG length);
NTSTATUS QueryInformation(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, void* buffer, ULONG length, ULONG_PTR* used);
NTSTATUS QueryDirectory(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, bool single, bool restart, WideView pattern,
    void* buffer, ULONG length, ULONG_PTR* used);
NTSTATUS FlushFile(PFILE_OBJECT file);
NTSTATUS SetEndOfFile(PFILE_OBJECT file, LONGLONG endOfFile);

// One paging read or write of whole pages, as the cache manager issues it: through the filters, with
// IRP_PAGING_IO | IRP_NOCACHE (| IRP_SYNCHRONOUS_PAGING_IO when synchronous), described by an MDL of locked,
// not yet mapped pages over `pages` (page-aligned address, length a multiple of the page size; page-aligned
// offset). The requestor is the calling thread. Up to APC_LEVEL.
NTSTATUS PagingRead(PFILE_OBJECT file, LONGLONG offset, void* pages, ULONG length, IO_STATUS_BLOCK* status);
NTSTATUS PagingWrite(PFILE_OBJECT file, LONGLONG offset, void* pages, ULONG length, IO_STATUS_BLOCK* status);
}
