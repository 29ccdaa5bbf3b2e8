#include "tests/unit/hosted/flt/filter_fixture.h"

#include "hosted/ob/name_space.h"

namespace flt_test
{
namespace
{
using IoVolume = VolumeTest;

TEST_F(IoVolume, LocalVolumesHaveAParameterBlockBetweenTwoDevices)
{
    ASSERT_NE(volume_->Vpb, nullptr);
    EXPECT_EQ(volume_->Vpb->RealDevice, volume_->Disk);
    EXPECT_EQ(volume_->Vpb->DeviceObject, volume_->FileSystemDevice);
    EXPECT_EQ(volume_->Disk->Vpb, volume_->Vpb);
    EXPECT_EQ(volume_->Disk->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK));
    EXPECT_EQ(volume_->FileSystemDevice->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK_FILE_SYSTEM));
    EXPECT_EQ(volume_->Disk->SectorSize, 512);
    EXPECT_EQ(VolumeOf(volume_->Disk), volume_);
    EXPECT_EQ(VolumeOf(volume_->FileSystemDevice), volume_);
    DEVICE_OBJECT other{};
    EXPECT_EQ(VolumeOf(&other), nullptr);
}

TEST_F(IoVolume, NetworkVolumesHaveOneDeviceAndNoBlock)
{
    const MountedFake network = Mount(L"\\Device\\Mup", L"", FILE_DEVICE_NETWORK_FILE_SYSTEM);
    EXPECT_EQ(network.Mounted->Vpb, nullptr);
    EXPECT_EQ(network.Mounted->Disk, network.Mounted->FileSystemDevice);
    EXPECT_EQ(network.Mounted->Disk->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_NETWORK_FILE_SYSTEM));
    const PFILE_OBJECT file = Open(L"\\Device\\Mup\\server\\share\\file");
    EXPECT_EQ(file->Vpb, nullptr);
    EXPECT_EQ(Narrow(View(file->FileName)), "\\server\\share\\file");
    CloseFile(file);
    DismountVolume(network.Mounted);
}

TEST_F(IoVolume, StandsInTheNameSpace)
{
    void* body = nullptr;
    WideString rest;
    ASSERT_EQ(LookupObject(L"\\??\\q:\\a\\b", &body, &rest), STATUS_SUCCESS);
    EXPECT_EQ(body, volume_->Disk);
    EXPECT_EQ(Narrow(rest), "\\a\\b");
    DereferenceObject(body);
    const MountedFake second = Mount(L"\\Device\\HarddiskVolume8", L"R:");
    DismountVolume(second.Mounted);
    EXPECT_EQ(VolumeOf(volume_->Disk), volume_) << "the other volume stays";
    EXPECT_FALSE(NT_SUCCESS(LookupObject(L"\\??\\R:\\a", &body, &rest)));
    EXPECT_FALSE(NT_SUCCESS(LookupObject(L"\\Device\\HarddiskVolume8\\a", &body, &rest)));
}

TEST_F(IoVolume, OpenFilesKeepItMounted)
{
    const PFILE_OBJECT file = Open();
    EXPECT_DEATH(DismountVolume(volume_), "VOLUME_IN_USE");
    CloseFile(file);
}

TEST_F(IoVolume, DosName)
{
    UNICODE_STRING name{};
    ASSERT_EQ(IoVolumeDeviceToDosName(volume_->Vpb->RealDevice, &name), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(View(name)), "Q:");
    EXPECT_EQ(name.MaximumLength, 6);
    EXPECT_EQ(name.Buffer[2], L'\0');
    ExFreePoolWithTag(name.Buffer, 0);
}

TEST_F(IoVolume, DosNameFails)
{
    UNICODE_STRING name{};
    FailRoutine("IoVolumeDeviceToDosName");
    EXPECT_EQ(IoVolumeDeviceToDosName(volume_->Disk, &name), STATUS_INSUFFICIENT_RESOURCES);
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(IoVolumeDeviceToDosName(volume_->Disk, &name), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    const MountedFake unnamed = Mount(L"\\Device\\HarddiskVolume8", L"");
    EXPECT_EQ(IoVolumeDeviceToDosName(unnamed.Mounted->Disk, &name), STATUS_OBJECT_NAME_NOT_FOUND);
    DismountVolume(unnamed.Mounted);
    DEVICE_OBJECT other{};
    EXPECT_EQ(IoVolumeDeviceToDosName(&other, &name), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(name.Buffer, nullptr);
    const RaisedIrql raised(APC_LEVEL);
    EXPECT_DEATH(IoVolumeDeviceToDosName(volume_->Disk, &name), "IoVolumeDeviceToDosName");
}

TEST_F(IoVolume, PagingFile)
{
    const PFILE_OBJECT file = Open();
    EXPECT_FALSE(FsRtlIsPagingFile(file));
    files_->PagingFile = true;
    EXPECT_TRUE(FsRtlIsPagingFile(file));
    CloseFile(file);
}
}
}
