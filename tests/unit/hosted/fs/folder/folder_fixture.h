// The volume "X:" over a folder of the host, which tests also look at and change from outside.
#pragma once

#include "hosted/fs/folder/folder_volume.h"
#include "hosted/io/posix_information.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/hosted/fs/volume_fixture.h"

#include <cstring>
#include <filesystem>

namespace hosted
{
class FolderVolume : public VolumeTest
{
protected:
    FolderVolume()
    {
        Dismount();
        MakeFilesFor = [this](Volume& volume)
        {
            return CreateFolderFileSystem(
                volume, {.Folder = Folder.string(), .ReadOnly = ReadOnly, .Without = Without});
        };
        Mount();
    }
    ~FolderVolume() override { Dismount(); }

    void RemountReadOnly()
    {
        Dismount();
        ReadOnly = true;
        Mount();
    }

    bool Exists(const std::string& path)
    {
        return std::filesystem::exists(std::filesystem::symlink_status(Folder / path));
    }

    static struct stat StatOf(PFILE_OBJECT file)
    {
        struct stat info = {};
        EXPECT_EQ(FolderStat(file, &info), 0);
        return info;
    }

    static std::string RenameRecord(ULONG flags, WideView target)
    {
        std::string record(FIELD_OFFSET(RenameEx, FileName) + target.size() * sizeof(WCHAR), 0);
        const auto bytes = static_cast<ULONG>(target.size() * sizeof(WCHAR));
        std::memcpy(record.data(), &flags, sizeof(flags));
        std::memcpy(record.data() + FIELD_OFFSET(RenameEx, FileNameLength), &bytes, sizeof(bytes));
        std::memcpy(record.data() + FIELD_OFFSET(RenameEx, FileName), target.data(), bytes);
        return record;
    }
    static NTSTATUS SetName(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, ULONG flags, WideView target)
    {
        std::string record = RenameRecord(flags, target);
        return SetInformation(file, kind, record.data(), static_cast<ULONG>(record.size()));
    }
    static NTSTATUS Rename(PFILE_OBJECT file, WideView target, bool replace = false)
    {
        return SetName(file, FileRenameInformation, replace, target);
    }
    static NTSTATUS PosixRename(PFILE_OBJECT file, WideView target, ULONG flags = RenameEx::ReplaceIfExists)
    {
        return SetName(file, FileRenameInformationEx, flags | RenameEx::PosixSemantics, target);
    }
    static NTSTATUS Delete(PFILE_OBJECT file)
    {
        FILE_DISPOSITION_INFORMATION disposition = {.DoDeleteFile = TRUE};
        return SetInformation(file, FileDispositionInformation, &disposition, sizeof(disposition));
    }
    static NTSTATUS PosixDelete(PFILE_OBJECT file)
    {
        DispositionEx disposition = {.Flags = DispositionEx::Delete | DispositionEx::PosixSemantics};
        return SetInformation(file, FileDispositionInformationEx, &disposition, sizeof(disposition));
    }
    static WideString NameOf(PFILE_OBJECT file, NTSTATUS* status = nullptr)
    {
        ULONGLONG buffer[64];
        ULONG_PTR used = 0;
        const NTSTATUS result = QueryInformation(file, FileNameInformation, buffer, sizeof(buffer), &used);
        if (status != nullptr)
        {
            *status = result;
        }
        const auto* bytes = reinterpret_cast<const char*>(buffer);
        ULONG length = 0;
        std::memcpy(&length, bytes, sizeof(length));
        WideString name(length / sizeof(WCHAR), 0);
        std::memcpy(name.data(), bytes + sizeof(ULONG), length);
        return name;
    }
    WideString NormalName(PFILE_OBJECT file, NTSTATUS expected = STATUS_SUCCESS)
    {
        WideString path;
        EXPECT_EQ(Files->NormalizedName(file, 0, &path), expected);
        return path;
    }
    std::vector<std::string> List(WideView directory, WideView pattern = {}, ULONG bufferBytes = 4096)
    {
        PFILE_OBJECT file =
            Open(directory, {.Disposition = FILE_OPEN, .Options = FILE_DIRECTORY_FILE, .Access = FILE_LIST_DIRECTORY});
        std::vector<std::string> names;
        std::vector<char> buffer(bufferBytes);
        ULONG_PTR used = 0;
        while (NT_SUCCESS(QueryDirectory(
            file, FileBothDirectoryInformation, false, false, pattern, buffer.data(), bufferBytes, &used)))
        {
            for (const char* at = buffer.data();;)
            {
                FILE_BOTH_DIR_INFORMATION entry;
                std::memcpy(&entry, at, FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName));
                WideString name(entry.FileNameLength / sizeof(WCHAR), 0);
                std::memcpy(name.data(), at + FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName), entry.FileNameLength);
                names.push_back(Narrow(name));
                if (entry.NextEntryOffset == 0)
                {
                    break;
                }
                at += entry.NextEntryOffset;
            }
        }
        CloseFile(file);
        std::sort(names.begin(), names.end());
        return names;
    }

    const TemporaryFolder OnLinux;
    const std::filesystem::path& Folder = OnLinux.Path();
    bool ReadOnly = false;
    std::string Without;
};
}
