// What kind of machine boots.
#pragma once

#include "hosted/ke/system_model.h"
#include "hosted/rtl/wide_string.h"

#include <string>
#include <vector>

namespace hosted
{
struct VolumeOptions
{
    WideString DeviceName = L"\\Device\\HarddiskVolume1";
    WideString DosName = L"C:"; // empty: no drive letter
    DEVICE_TYPE Kind = FILE_DEVICE_DISK_FILE_SYSTEM;
    ULONG SectorSize = 512; // bytes; 1 for a byte-addressable medium
    // The file system leaves the pages at the old and new end of file alone when a size changes.
    bool StrictEndOfFile = false;
    bool ShortNames = true;
    std::string Directory = {}; // where a directory store keeps its files; empty: in memory
    // A folder of the host system that is the volume itself (see folder_volume.h), in place of a store.
    std::string Folder = {};
    bool ReadOnly = false;    // of a folder
    std::string Without = {}; // of a folder
};

inline SystemModel Windows7()
{
    return {};
}

inline SystemModel Windows8()
{
    SystemModel model;
    model.MinorVersion = 2;
    model.BuildNumber = 9200;
    return model;
}

inline SystemModel Windows10()
{
    SystemModel model;
    model.MajorVersion = 10;
    model.MinorVersion = 0;
    model.BuildNumber = 19041;
    model.ZeroesPool = true;
    return model;
}

struct MachineOptions
{
    SystemModel System = Windows7();
    std::vector<VolumeOptions> Volumes = {VolumeOptions{}};
};
}
