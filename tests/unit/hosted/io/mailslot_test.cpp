// Mailslots: found by name, written through handles, read message by message.
#include "hosted/io/mailslot.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/handle_table.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

#include <map>
#include <thread>

using namespace hosted;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
constexpr WideView Path = L"\\Device\\mailslot\\OrvaneSandbox_Dbg";

class MailslotTest : public testing::Test
{
protected:
    NTSTATUS Open(WideView path = Path, ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE)
    {
        UNICODE_STRING name = Counted(path);
        OBJECT_ATTRIBUTES object;
        InitializeObjectAttributes(&object, &name, attributes, nullptr, nullptr);
        status_ = {};
        return ZwOpenFile(
            &handle_, GENERIC_WRITE, &object, &status_, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_NON_DIRECTORY_FILE);
    }

    NTSTATUS Write(const std::string& bytes)
    {
        return ZwWriteFile(handle_, nullptr, nullptr, nullptr, &status_, const_cast<char*>(bytes.data()),
            static_cast<ULONG>(bytes.size()), nullptr, nullptr);
    }

    static std::string Next(MailslotReader& reader)
    {
        const auto message = reader.Read();
        return message ? std::string(message->begin(), message->end()) : "(none)";
    }

    Machine machine_;
    HANDLE handle_ = nullptr;
    IO_STATUS_BLOCK status_{};
};

TEST_F(MailslotTest, EachWriteIsOneMessage)
{
    const auto reader = machine_.CreateMailslot(Path);
    EXPECT_EQ(0u, reader->Waiting());
    ASSERT_EQ(STATUS_SUCCESS, Open());
    EXPECT_LT(reinterpret_cast<LONG_PTR>(handle_), 0) << "a kernel handle";
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_OPENED), status_.Information);
    EXPECT_EQ(STATUS_SUCCESS, Write("one"));
    EXPECT_EQ(STATUS_SUCCESS, status_.Status);
    EXPECT_EQ(3u, status_.Information);
    EXPECT_EQ(STATUS_SUCCESS, Write(""));
    EXPECT_EQ(0u, status_.Information);
    EXPECT_EQ(STATUS_SUCCESS, Write(std::string("t\0o", 3)));
    EXPECT_EQ(3u, reader->Waiting());
    EXPECT_EQ("one", Next(*reader));
    EXPECT_EQ("", Next(*reader));
    EXPECT_EQ(std::string("t\0o", 3), Next(*reader));
    EXPECT_EQ("(none)", Next(*reader));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, ReadsTextWithoutItsTerminator)
{
    const auto reader = machine_.CreateMailslot(Path);
    ASSERT_EQ(STATUS_SUCCESS, Open());
    EXPECT_EQ(STATUS_SUCCESS, ZwWriteFile(handle_, nullptr, nullptr, nullptr, &status_, const_cast<WCHAR*>(L"line\r\n"),
                                  14, nullptr, nullptr));
    EXPECT_EQ("line\r\n", Narrow(*reader->ReadText()));
    EXPECT_FALSE(reader->ReadText().has_value());
    EXPECT_EQ(STATUS_SUCCESS, Write("odd"));
    EXPECT_DEATH(reader->ReadText(), "MAILSLOT_NOT_TEXT");
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, CaseOfTheNameDoesNotCount)
{
    const auto reader = machine_.CreateMailslot(Path);
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\device\\MAILSLOT\\orvanesandbox_DBG"));
    EXPECT_EQ(STATUS_SUCCESS, Write("found"));
    EXPECT_EQ("found", Next(*reader));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, AnAbsentOneIsNotFound)
{
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open());
    EXPECT_EQ(nullptr, handle_);
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\Device\\mailslot"));
    const auto reader = machine_.CreateMailslot(L"\\Device\\mailslot\\Other\\Name");
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open());
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\Device\\mailslot\\Other"));
    EXPECT_EQ(STATUS_SUCCESS, Open(L"\\Device\\mailslot\\Other\\Name"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, NobodyFindsNorWritesOneWhoseReaderIsGone)
{
    auto reader = machine_.CreateMailslot(Path);
    ASSERT_EQ(STATUS_SUCCESS, Open());
    EXPECT_EQ(STATUS_SUCCESS, Write("lost"));
    const HANDLE held = handle_;
    reader.reset();
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open());
    handle_ = held;
    EXPECT_EQ(STATUS_FILE_FORCED_CLOSED, Write("more"));

    const auto next = machine_.CreateMailslot(Path);
    EXPECT_EQ(STATUS_FILE_FORCED_CLOSED, Write("to the old one"));
    EXPECT_EQ("(none)", Next(*next));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(held));
    ASSERT_EQ(STATUS_SUCCESS, Open());
    EXPECT_EQ(STATUS_SUCCESS, Write("to the new one"));
    EXPECT_EQ("to the new one", Next(*next));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, TheLongestMessageIsKept)
{
    const auto reader = machine_.CreateMailslot(Path, 4);
    ASSERT_EQ(STATUS_SUCCESS, Open());
    EXPECT_EQ(STATUS_SUCCESS, Write("four"));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, Write("fives"));
    EXPECT_EQ(1u, reader->Waiting());
    EXPECT_EQ("four", Next(*reader));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, NamesAreTakenOnceAndStandBelowTheDevice)
{
    const auto reader = machine_.CreateMailslot(Path);
    std::unique_ptr<MailslotReader> other;
    EXPECT_EQ(
        STATUS_OBJECT_NAME_COLLISION, MailslotReader::Create(L"\\Device\\Mailslot\\ORVANESANDBOX_DBG", 0, &other));
    EXPECT_EQ(nullptr, other);
    for (const WideView path : {WideView(L"\\Device\\Mailslot"), WideView(L"\\Device\\Mailslot\\"),
             WideView(L"\\Device\\MailslotX"), WideView(L"\\Device\\Other\\A"), WideView(L"")})
    {
        EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, MailslotReader::Create(path, 0, &other)) << Narrow(path);
    }
    EXPECT_DEATH(machine_.CreateMailslot(Path), "MAILSLOT_NOT_MADE");
}

TEST_F(MailslotTest, SeveralWritersShareOne)
{
    const auto reader = machine_.CreateMailslot(Path);
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
    {
        writers.emplace_back(
            [i]
            {
                UNICODE_STRING name = Counted(Path);
                OBJECT_ATTRIBUTES object;
                InitializeObjectAttributes(&object, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
                HANDLE handle;
                IO_STATUS_BLOCK status;
                ASSERT_EQ(
                    STATUS_SUCCESS, ZwOpenFile(&handle, GENERIC_WRITE, &object, &status, 0, FILE_NON_DIRECTORY_FILE));
                char line[] = {static_cast<char>('0' + i), 'x'};
                for (int round = 0; round < 50; ++round)
                {
                    EXPECT_EQ(STATUS_SUCCESS,
                        ZwWriteFile(handle, nullptr, nullptr, nullptr, &status, line, sizeof(line), nullptr, nullptr));
                }
                EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
            });
    }
    for (std::thread& writer : writers)
    {
        writer.join();
    }
    std::map<std::string, int> counts;
    while (reader->Waiting() != 0)
    {
        ++counts[Next(*reader)];
    }
    EXPECT_THAT(counts, ElementsAre(testing::Pair("0x", 50), testing::Pair("1x", 50), testing::Pair("2x", 50)));
}

TEST_F(MailslotTest, FailsByInjection)
{
    const auto reader = machine_.CreateMailslot(Path);
    FailRoutine("ZwOpenFile");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Open());
    ASSERT_EQ(STATUS_SUCCESS, Open());
    FailRoutine("ZwWriteFile");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Write("not written"));
    EXPECT_EQ(0u, reader->Waiting());
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

TEST_F(MailslotTest, BootingCountsNoFallibleCalls)
{
    EXPECT_EQ(0u, FallibleCalls());
}

TEST_F(MailslotTest, WritesNeedPassiveLevelAndPlainArguments)
{
    const auto reader = machine_.CreateMailslot(Path);
    ASSERT_EQ(STATUS_SUCCESS, Open());
    {
        const RaisedIrql raised(APC_LEVEL);
        EXPECT_DEATH(Write("x"), "ZwWriteFile was called at 1");
    }
    ULONG key = 0;
    char byte = 0;
    EXPECT_DEATH(ZwWriteFile(handle_, handle_, nullptr, nullptr, &status_, &byte, 1, nullptr, nullptr), "NOT_MODELLED");
    EXPECT_DEATH(ZwWriteFile(handle_, nullptr, nullptr, nullptr, &status_, &byte, 1, nullptr, &key), "NOT_MODELLED");
    EXPECT_EQ(STATUS_INVALID_HANDLE,
        ZwWriteFile(reinterpret_cast<HANDLE>(0x7770), nullptr, nullptr, nullptr, &status_, &byte, 1, nullptr, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle_));
}

std::string reported;

TEST(MailslotLeaks, AHandleLeftOpenIsReported)
{
    HANDLE handle;
    std::unique_ptr<MailslotReader> reader;
    {
        Machine machine;
        SetLeakHandler([](const std::string& leaks) { reported = leaks; });
        reader = machine.CreateMailslot(Path);
        UNICODE_STRING name = Counted(Path);
        OBJECT_ATTRIBUTES object;
        InitializeObjectAttributes(&object, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK status;
        ASSERT_EQ(STATUS_SUCCESS, ZwOpenFile(&handle, GENERIC_WRITE, &object, &status, 0, FILE_NON_DIRECTORY_FILE));
    }
    SetLeakHandler([](const std::string& leaks) { ADD_FAILURE() << leaks; });
    EXPECT_THAT(reported, HasSubstr("kernel handles: 1"));
    EXPECT_THAT(reported, HasSubstr("File x1"));
    EXPECT_THAT(reported, HasSubstr("Mailslot x1"));
    reader.reset();
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    EXPECT_THAT(DescribeLiveObjects(), testing::Not(HasSubstr("Mailslot")));
}
}
