#include "hosted/ob/name_space.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/handle_table.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace hosted
{
namespace
{
class NameSpace : public testing::Test
{
protected:
    void SetUp() override
    {
        kernelHandles_ = KernelHandles().Count();
        device_ = CreateObject(DeviceType, 16);
        EXPECT_EQ(STATUS_SUCCESS, InsertName(L"\\Device\\HarddiskVolume1", device_));
        EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\DosDevices\\C:", L"\\Device\\HarddiskVolume1"));
    }
    void TearDown() override
    {
        ResetFailures();
        EXPECT_EQ(STATUS_SUCCESS, RemoveSymbolicLink(L"\\??\\C:"));
        EXPECT_EQ(STATUS_SUCCESS, RemoveName(L"\\Device\\HarddiskVolume1"));
        EXPECT_EQ(1, ReferenceCount(device_));
        DereferenceObject(device_);
        EXPECT_EQ(std::string::npos, DescribeLiveObjects().find("SymbolicLink"));
        EXPECT_EQ(kernelHandles_, KernelHandles().Count());
    }

    // "status" or the remainder of a look-up that gives the device.
    std::string Find(WideView path)
    {
        void* body;
        WideString remainder;
        NTSTATUS status = LookupObject(path, &body, &remainder);
        if (!NT_SUCCESS(status))
        {
            EXPECT_EQ(nullptr, body);
            char text[16];
            snprintf(text, sizeof(text), "%08X", static_cast<ULONG>(status));
            return text;
        }
        EXPECT_EQ(device_, body);
        DereferenceObject(body);
        return "+" + Narrow(remainder);
    }

    void* device_;
    size_t kernelHandles_;
};

TEST_F(NameSpace, FindsDevicesAndWhatFollows)
{
    EXPECT_EQ("+", Find(L"\\Device\\HarddiskVolume1"));
    EXPECT_EQ("+", Find(L"\\device\\HARDDISKVOLUME1"));
    EXPECT_EQ("+\\a\\b", Find(L"\\Device\\HarddiskVolume1\\a\\b"));
    EXPECT_EQ("+\\", Find(L"\\Device\\HarddiskVolume1\\"));
}

TEST_F(NameSpace, FollowsLinks)
{
    EXPECT_EQ("+\\a\\b", Find(L"\\??\\C:\\a\\b"));
    EXPECT_EQ("+\\a", Find(L"\\DosDevices\\c:\\a"));
    EXPECT_EQ("+\\a", Find(L"\\GLOBAL??\\C:\\a"));
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\Second", L"\\DosDevices\\C:\\sub"));
    EXPECT_EQ("+\\sub\\x", Find(L"\\??\\Second\\x"));
    EXPECT_EQ(STATUS_SUCCESS, RemoveSymbolicLink(L"\\DosDevices\\Second"));
}

TEST_F(NameSpace, TakesTheLongestName)
{
    void* inner = CreateObject(DeviceType, 16);
    EXPECT_EQ(STATUS_SUCCESS, InsertName(L"\\Device\\HarddiskVolume1\\Inner", inner));
    void* body;
    WideString remainder;
    EXPECT_EQ(STATUS_SUCCESS, LookupObject(L"\\Device\\HarddiskVolume1\\Inner\\x", &body, &remainder));
    EXPECT_EQ(inner, body);
    EXPECT_EQ("\\x", Narrow(remainder));
    DereferenceObject(body);
    EXPECT_EQ("+\\InnerMore", Find(L"\\Device\\HarddiskVolume1\\InnerMore"));
    EXPECT_EQ(STATUS_SUCCESS, RemoveName(L"\\Device\\HarddiskVolume1\\Inner"));
    DereferenceObject(inner);
}

TEST_F(NameSpace, MissingNames)
{
    EXPECT_EQ("C0000034", Find(L"\\Device\\HarddiskVolume2"));
    EXPECT_EQ("C0000034", Find(L"\\??\\Q:"));
    EXPECT_EQ("C0000034", Find(L"\\Nothing"));
    EXPECT_EQ("C000003A", Find(L"\\Device\\HarddiskVolume2\\a"));
    EXPECT_EQ("C000003A", Find(L"\\??\\Q:\\a"));
    EXPECT_EQ("C000003A", Find(L"\\Nothing\\a"));
    EXPECT_EQ("C0000024", Find(L"\\Device")) << "a directory";
    EXPECT_EQ("C0000024", Find(L"\\??"));
    EXPECT_EQ("C0000033", Find(L"\\"));
    EXPECT_EQ("C000003B", Find(L""));
    EXPECT_EQ("C000003B", Find(L"C:\\a"));
}

TEST_F(NameSpace, DanglingAndCircularLinks)
{
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\D:", L"\\Device\\HarddiskVolume9"));
    EXPECT_EQ("C0000034", Find(L"\\??\\D:"));
    EXPECT_EQ("C000003A", Find(L"\\??\\D:\\a"));
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\X:", L"\\??\\Y:"));
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\Y:", L"\\??\\X:"));
    EXPECT_EQ("C0000033", Find(L"\\??\\X:\\a"));
    for (WideView link : {L"\\??\\D:", L"\\??\\X:", L"\\??\\Y:"})
    {
        EXPECT_EQ(STATUS_SUCCESS, RemoveSymbolicLink(link));
    }
}

TEST_F(NameSpace, Insertion)
{
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, InsertName(L"\\DEVICE\\harddiskvolume1", device_));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, InsertSymbolicLink(L"\\??\\c:", L"\\Device\\Other"));
    for (WideView name : {L"\\", L"\\Device\\", L"\\Device\\\\A"})
    {
        EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, InsertName(name, device_)) << Narrow(name);
    }
    EXPECT_EQ(STATUS_INVALID_PARAMETER, InsertSymbolicLink(L"\\??\\D:", L""));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, InsertName(L"", device_));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, InsertName(L"Device", device_));
    EXPECT_EQ(2, ReferenceCount(device_));
}

TEST_F(NameSpace, Removal)
{
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, RemoveName(L"\\Device\\HarddiskVolume2"));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, RemoveSymbolicLink(L"\\??\\Q:"));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, RemoveName(L"\\??\\C:"));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, RemoveSymbolicLink(L"\\Device\\HarddiskVolume1"));
}

TEST_F(NameSpace, ReadsLinks)
{
    WideString target;
    EXPECT_EQ(STATUS_SUCCESS, ReadSymbolicLink(L"\\DosDevices\\c:", &target));
    EXPECT_EQ("\\Device\\HarddiskVolume1", Narrow(target));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, ReadSymbolicLink(L"\\??\\Q:", &target));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, ReadSymbolicLink(L"\\Device\\HarddiskVolume1", &target));
}

class LinkRoutines : public NameSpace
{
protected:
    NTSTATUS Open(WideView path, HANDLE* handle, HANDLE root = nullptr)
    {
        UNICODE_STRING name = Counted(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
        return ZwOpenSymbolicLinkObject(handle, GENERIC_READ, &attributes);
    }
};

TEST_F(LinkRoutines, OpenAndQuery)
{
    HANDLE handle;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\??\\C:", &handle));
    WCHAR buffer[64];
    std::fill(buffer, buffer + 64, L'#');
    UNICODE_STRING target = {2, 48, buffer};
    ULONG length = 0;
    EXPECT_EQ(STATUS_SUCCESS, ZwQuerySymbolicLinkObject(handle, &target, &length));
    EXPECT_EQ("\\Device\\HarddiskVolume1", Narrow(View(target)));
    EXPECT_EQ(46, target.Length);
    EXPECT_EQ(48u, length);
    EXPECT_EQ(0, buffer[23]);
    EXPECT_EQ(L'#', buffer[24]);
    EXPECT_EQ(STATUS_SUCCESS, ZwQuerySymbolicLinkObject(handle, &target, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
}

TEST_F(LinkRoutines, TooSmallABuffer)
{
    HANDLE handle;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\DosDevices\\C:", &handle));
    WCHAR buffer[64];
    std::fill(buffer, buffer + 64, L'#');
    for (USHORT room : {0, 2, 45, 46, 47})
    {
        UNICODE_STRING target = {2, room, buffer};
        ULONG length = 0;
        EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, ZwQuerySymbolicLinkObject(handle, &target, &length));
        EXPECT_EQ(48u, length);
        EXPECT_EQ(2, target.Length);
        EXPECT_EQ(L'#', buffer[0]);
        EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, ZwQuerySymbolicLinkObject(handle, &target, nullptr));
    }
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
}

TEST_F(LinkRoutines, OpenFailures)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\??\\Q:", &handle));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Open(L"\\Nowhere\\Q:", &handle));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, Open(L"\\Device\\HarddiskVolume1", &handle));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, Open(L"\\??\\C:\\a", &handle));
    EXPECT_EQ(STATUS_OBJECT_PATH_SYNTAX_BAD, Open(L"C:", &handle));
    EXPECT_EQ(STATUS_INVALID_HANDLE, Open(L"C:", &handle, reinterpret_cast<HANDLE>(4000)));
    FailRoutine("ZwOpenSymbolicLinkObject");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Open(L"\\??\\C:", &handle));
    EXPECT_EQ(nullptr, handle);
}

TEST_F(LinkRoutines, LinksOnTheWayAreFollowed)
{
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\Directory", L"\\??"));
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\Dangling", L"\\Device\\Missing"));
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\Circle", L"\\??\\Circle"));
    HANDLE handle;
    EXPECT_EQ(STATUS_SUCCESS, Open(L"\\??\\Directory\\C:", &handle));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Open(L"\\??\\Dangling\\C:", &handle));
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, Open(L"\\??\\Circle\\C:", &handle));
    for (WideView link : {L"\\??\\Directory", L"\\??\\Dangling", L"\\??\\Circle"})
    {
        EXPECT_EQ(STATUS_SUCCESS, RemoveSymbolicLink(link));
    }
}

TEST_F(LinkRoutines, OpenWithWrongAttributes)
{
    UNICODE_STRING name = Counted(L"\\??\\C:");
    OBJECT_ATTRIBUTES attributes;
    HANDLE handle;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, ZwOpenSymbolicLinkObject(&handle, 1, &attributes));
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    name.Length -= 1;
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, ZwOpenSymbolicLinkObject(&handle, 1, &attributes));
    name.Length += 1;
    attributes.Length -= 8;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, ZwOpenSymbolicLinkObject(&handle, 1, &attributes));
}

TEST_F(LinkRoutines, ARootIsNoDirectory)
{
    HANDLE root;
    HANDLE handle;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\??\\C:", &root));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, Open(L"C:", &handle, root));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(root));
}

TEST_F(LinkRoutines, QueryFailures)
{
    UNICODE_STRING target = {};
    EXPECT_EQ(STATUS_INVALID_HANDLE, ZwQuerySymbolicLinkObject(nullptr, &target, nullptr));
    HANDLE device = KernelHandles().Insert(device_, 0);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, ZwQuerySymbolicLinkObject(device, &target, nullptr));
    FailRoutine("ZwQuerySymbolicLinkObject");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, ZwQuerySymbolicLinkObject(device, &target, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(device));
}

TEST_F(LinkRoutines, AnOpenLinkOutlivesItsName)
{
    EXPECT_EQ(STATUS_SUCCESS, InsertSymbolicLink(L"\\??\\D:", L"\\Device\\D"));
    HANDLE handle;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\??\\D:", &handle));
    EXPECT_EQ(STATUS_SUCCESS, RemoveSymbolicLink(L"\\??\\D:"));
    WCHAR buffer[32];
    UNICODE_STRING target = {0, sizeof(buffer), buffer};
    EXPECT_EQ(STATUS_SUCCESS, ZwQuerySymbolicLinkObject(handle, &target, nullptr));
    EXPECT_EQ("\\Device\\D", Narrow(View(target)));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
}

TEST_F(LinkRoutines, CreateAndDelete)
{
    UNICODE_STRING link = Counted(L"\\DosDevices\\Tarnveil");
    UNICODE_STRING device = Counted(L"\\Device\\HarddiskVolume1");
    EXPECT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&link, &device));
    EXPECT_EQ("+", Find(L"\\??\\Tarnveil"));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateSymbolicLink(&link, &device));
    EXPECT_EQ(STATUS_SUCCESS, IoDeleteSymbolicLink(&link));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, IoDeleteSymbolicLink(&link));
    FailRoutine("IoCreateSymbolicLink");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, IoCreateSymbolicLink(&link, &device));
    EXPECT_EQ("C0000034", Find(L"\\??\\Tarnveil"));
}

TEST_F(LinkRoutines, LevelDeath)
{
    RaisedIrql apc(APC_LEVEL);
    HANDLE handle;
    UNICODE_STRING name = {};
    EXPECT_DEATH(Open(L"\\??\\C:", &handle), "irql-too-high: ZwOpenSymbolicLinkObject");
    EXPECT_DEATH(ZwQuerySymbolicLinkObject(nullptr, &name, nullptr), "irql-too-high: ZwQuerySymbolicLinkObject");
    EXPECT_DEATH(IoCreateSymbolicLink(&name, &name), "irql-too-high: IoCreateSymbolicLink");
    EXPECT_DEATH(IoDeleteSymbolicLink(&name), "irql-too-high: IoDeleteSymbolicLink");
}
}
}
