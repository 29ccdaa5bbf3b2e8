// The image that ships, running in the hosted kernel: what is refused, and faults that unwind by its own tables.

#include "hosted/ldr/loaded_image.h"
#include "tests/support/machine.h"

#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <tarnveil/control.h>
#include <unistd.h>

namespace hosted
{
namespace
{
using testing::HasSubstr;

std::string ReadShipping()
{
    std::ifstream stream(TARNVEIL_IMAGE, std::ios::binary);
    EXPECT_TRUE(stream) << "the driver image " TARNVEIL_IMAGE " is missing";
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

// The reason for which an image with these bytes is refused; "" when it is not.
std::string RefusalOf(const std::string& bytes)
{
    const auto path = std::filesystem::temp_directory_path() / ("damaged-" + std::to_string(getpid()) + ".sys");
    std::ofstream(path, std::ios::binary) << bytes;
    std::string reason;
    try
    {
        const LoadedImage image(path);
    }
    catch (const BadImage& refusal)
    {
        reason = refusal.what();
    }
    std::filesystem::remove(path);
    return reason;
}

TEST(LoadedImage, IsTakenAsItIsBuilt)
{
    EXPECT_EQ(RefusalOf(ReadShipping()), "");
}

TEST(LoadedImage, IsRefusedWithAnImportThatNobodyKnows)
{
    std::string bytes = ReadShipping();
    const size_t name = bytes.find("ExAcquireFastMutex");
    ASSERT_NE(name, std::string::npos);
    bytes[name] = 'X';
    EXPECT_THAT(RefusalOf(bytes), HasSubstr("the import XxAcquireFastMutex from ntoskrnl.exe is unknown here"));
}

TEST(LoadedImage, IsRefusedWhenItIsCutOff)
{
    const std::string bytes = ReadShipping();
    EXPECT_THAT(RefusalOf(bytes.substr(0, bytes.size() / 2)), HasSubstr("cut off"));
}

TEST(LoadedImage, IsRefusedWhenThereIsNone)
{
    EXPECT_THROW(LoadedImage("/nonexistent/Tarnveil.sys"), BadImage);
}

class RunningImage : public testing::Test
{
protected:
    void SetUp() override
    {
        MachineOptions options;
        options.System.GuardedPool = true;
        computer_.emplace(options);
        ASSERT_EQ(computer_->LoadDriver(image_.Entry()), STATUS_SUCCESS);
        agent_.emplace(computer_->StartProcess(L"C:\\Agent\\agent.exe"));
        ASSERT_EQ(agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        for (int i = 0; i < 3; ++i)
        {
            computer_->StartProcess(L"C:\\Apps\\Editor.exe");
        }
    }

    NTSTATUS PidListInto(const ControlOptions& options, ULONG bytes)
    {
        return agent_->DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, bytes, options).Status;
    }
    // Nothing is held: the same list is asked for, grows and shrinks.
    void ExpectUsable()
    {
        EXPECT_EQ(agent_->PidList().Count, 3u);
        const Program another = computer_->StartProcess(L"C:\\Apps\\Editor.exe");
        EXPECT_EQ(agent_->PidList().Count, 4u);
        another.Exit();
        EXPECT_EQ(agent_->PidList().Count, 3u);
    }

    LoadedImage image_{TARNVEIL_IMAGE};
    std::optional<Machine> computer_;
    std::optional<Program> agent_;
};

// The ids are written under the list's mutex, which the termination handler gives back.
TEST_F(RunningImage, AFaultAmongTheIdsReleasesTheListAndFailsTheRequest)
{
    ControlOptions options;
    options.Kind = OutputBuffer::Exact;
    options.Probe = false;
    for (const ULONG existing : {4u, 8u, 12u})
    {
        options.Existing = existing;
        EXPECT_EQ(PidListInto(options, 8192), STATUS_ACCESS_VIOLATION) << existing;
        ExpectUsable();
    }
    options.Existing = 16;
    EXPECT_EQ(PidListInto(options, 16), STATUS_SUCCESS);
}

TEST_F(RunningImage, ABufferThatCannotBeWrittenFailsTheRequest)
{
    for (const OutputBuffer kind :
        {OutputBuffer::ReadOnly, OutputBuffer::NoAccess, OutputBuffer::LostMidway, OutputBuffer::Guarded})
    {
        ControlOptions options;
        options.Kind = kind;
        options.Probe = false;
        EXPECT_EQ(PidListInto(options, 64), STATUS_ACCESS_VIOLATION);
        ExpectUsable();
        EXPECT_EQ(agent_->DeviceControl(IOCTL_IS_EXIST_UNDER_SANDBOX, {}, 4, options).Status, STATUS_ACCESS_VIOLATION);
    }
}

TEST_F(RunningImage, UnloadsAndLoadsAgainFromTheFile)
{
    EXPECT_EQ(agent_->AddExclusion(L"C:\\a.exe"), Added(1));
    EXPECT_EQ(computer_->UnloadDriver(), STATUS_SUCCESS);
    const LoadedImage fresh(TARNVEIL_IMAGE);
    EXPECT_EQ(computer_->LoadDriver(fresh.Entry()), STATUS_SUCCESS);
    EXPECT_EQ(agent_->AddExclusion(L"C:\\a.exe"), Added(0));
    EXPECT_EQ(computer_->UnloadDriver(), STATUS_SUCCESS);
}
}
}
