#include "live/mount/sandbox_border.h"
#include "live/mount/status_errno.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace
{
TEST(StatusErrno, SuccessesAreNoErrors)
{
    EXPECT_EQ(live::ErrorFromStatus(STATUS_SUCCESS), 0);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_PENDING), 0);
}

TEST(StatusErrno, KnownRefusals)
{
    EXPECT_EQ(live::ErrorFromStatus(STATUS_ACCESS_DENIED), EACCES);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_OBJECT_NAME_NOT_FOUND), ENOENT);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_OBJECT_PATH_NOT_FOUND), ENOENT);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_OBJECT_NAME_COLLISION), EEXIST);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_DIRECTORY_NOT_EMPTY), ENOTEMPTY);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_NOT_A_DIRECTORY), ENOTDIR);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_FILE_IS_A_DIRECTORY), EISDIR);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_DISK_FULL), ENOSPC);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_MEDIA_WRITE_PROTECTED), EROFS);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_STOPPED_ON_SYMLINK), ELOOP);
}

TEST(StatusErrno, EveryOtherFailureIsAnInputOutputError)
{
    EXPECT_EQ(live::ErrorFromStatus(STATUS_UNEXPECTED_IO_ERROR), EIO);
    EXPECT_EQ(live::ErrorFromStatus(static_cast<NTSTATUS>(0xC0DE0001)), EIO);
    EXPECT_EQ(live::ErrorFromStatus(STATUS_BUFFER_OVERFLOW), EIO);
}

TEST(SandboxBorder, TheFolderItselfIsInside)
{
    live::MountState state(L"\\Device\\V");
    state.SandboxFolder = L"\\Device\\V\\Sandbox";
    const hosted::WideView inside = L"\\Device\\V\\sandbox\\a";
    const hosted::WideView folder = L"\\Device\\V\\SANDBOX";
    const hosted::WideView outside = L"\\Device\\V\\Sandboxes";
    EXPECT_FALSE(live::CrossesSandboxBorder(state, inside, folder));
    EXPECT_TRUE(live::CrossesSandboxBorder(state, inside, outside));
    EXPECT_TRUE(live::CrossesSandboxBorder(state, outside, folder));
    EXPECT_FALSE(live::CrossesSandboxBorder(state, outside, L"\\Device\\V\\a"));
}

TEST(SandboxBorder, NoFolderHasNoBorder)
{
    const live::MountState state(L"\\Device\\V");
    EXPECT_FALSE(live::CrossesSandboxBorder(state, L"\\Device\\V\\a", L"\\Device\\V\\b"));
}
}
