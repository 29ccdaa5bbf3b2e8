// What the hosted kernel keeps about a file object besides the public structure, and the values that accompany
// requests without being needed by drivers.
#pragma once

#include "hosted/io/file.h"
#include "hosted/io/request.h"

#include <atomic>

namespace hosted
{
// What a create's Parameters.Create.SecurityContext points to, laid out as on Windows.
struct CreateSecurity
{
    PVOID SecurityQos;
    PVOID AccessState;
    ACCESS_MASK DesiredAccess; // generic rights are mapped already
    ULONG FullCreateOptions;
};

// Flags of a directory query (FLT_IO_PARAMETER_BLOCK::OperationFlags).
constexpr UCHAR DirectoryRestartScan = 0x01;
constexpr UCHAR DirectorySingleEntry = 0x02;

extern const ObjectType FileType;

// Behind FILE_OBJECT::FileObjectExtension of every file object made by NewFileObject.
struct FileState
{
    Volume* Target;      // null when the device carries no volume
    PDEVICE_OBJECT Held; // the device, referenced while the file object lives
    WideString Name;     // what FILE_OBJECT::FileName points to
    ACCESS_MASK Granted = 0;
    KPROCESSOR_MODE Mode = KernelMode;
    bool Opened = false; // the create succeeded, so that cleanup and close are owed
    std::atomic<bool> CleanedUp = false;
};

// A file object with one reference, not yet opened. `name` becomes its FileName. The device is referenced.
PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device, WideView name, ACCESS_MASK granted, KPROCESSOR_MODE mode);
// Null for a file object that NewFileObject did not make.
FileState* StateOf(PFILE_OBJECT file);
// Null for a file of a device without a volume.
Volume* VolumeOfFile(PFILE_OBJECT file);

// Generic rights replaced by those that they stand for on files.
ACCESS_MASK MapFileAccess(ACCESS_MASK desired);
}
