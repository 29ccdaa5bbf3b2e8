// Formatting into a buffer that is never overrun.
#include "hosted/rtl/wide_string.h"

#include <ntstrsafe.h>

#include <gtest/gtest.h>

#include <vector>

namespace hosted
{
namespace
{
constexpr ULONG Flags = STRSAFE_NO_TRUNCATION | STRSAFE_NULL_ON_FAILURE;
constexpr WCHAR Untouched = 0x5A5A;

class SafeFormat : public testing::Test
{
protected:
    // The arguments as a list, as a routine with arguments of its own passes them on.
    static NTSTATUS __cdecl List(SafeFormat* test, size_t bytes, ULONG flags, PCWSTR format, ...)
    {
        __builtin_ms_va_list arguments;
        __builtin_ms_va_start(arguments, format);
        const NTSTATUS status =
            RtlStringCbVPrintfExW(test->buffer_, bytes, &test->end_, &test->left_, flags, format, arguments);
        __builtin_ms_va_end(arguments);
        return status;
    }

    void SetUp() override
    {
        for (WCHAR& unit : buffer_)
        {
            unit = Untouched;
        }
    }

    std::string Text() const { return Narrow(buffer_); }
    long Used() const { return end_ - buffer_; }

    WCHAR buffer_[32];
    NTSTRSAFE_PWSTR end_ = nullptr;
    size_t left_ = 0x7777;
};

TEST_F(SafeFormat, FormatsAndSaysWhereItEnds)
{
    EXPECT_EQ(STATUS_SUCCESS, RtlStringCbPrintfExW(buffer_, sizeof(buffer_), &end_, &left_, Flags, L"%d|%02d", 7, 5));
    EXPECT_EQ("7|05", Text());
    EXPECT_EQ(4, Used());
    EXPECT_EQ(sizeof(buffer_) - 8, left_);
    EXPECT_EQ(Untouched, buffer_[5]);
}

TEST_F(SafeFormat, TakesTheConversionsOfTheKernelsFormatter)
{
    UNICODE_STRING counted = Counted(L"counted");
    ASSERT_EQ(STATUS_SUCCESS, List(this, sizeof(buffer_), Flags, L"%ws %s %wZ %d", L"a", L"b", &counted, -3));
    EXPECT_EQ("a b counted -3", Text());
    ASSERT_EQ(STATUS_SUCCESS,
        List(this, sizeof(buffer_), Flags, L"%02d %08X %p", 3, 0xBEEFu, reinterpret_cast<void*>(0x12345678)));
    EXPECT_EQ("03 0000BEEF 0000000012345678", Text());
    EXPECT_EQ(28, Used());
}

TEST_F(SafeFormat, ExactlyFullIsNoOverflow)
{
    EXPECT_EQ(STATUS_SUCCESS, List(this, 8, Flags, L"%s", L"abc"));
    EXPECT_EQ("abc", Text());
    EXPECT_EQ(3, Used());
    EXPECT_EQ(2u, left_);
    EXPECT_EQ(Untouched, buffer_[4]);
}

TEST_F(SafeFormat, ATextThatDoesNotFitIsLeftOut)
{
    for (const ULONG flags : {Flags, ULONG{STRSAFE_NO_TRUNCATION}, ULONG{STRSAFE_NULL_ON_FAILURE}})
    {
        SetUp();
        EXPECT_EQ(STATUS_BUFFER_OVERFLOW, List(this, 8, flags, L"%s", L"abcd"));
        EXPECT_EQ("", Text());
        EXPECT_EQ(0, Used());
        EXPECT_EQ(8u, left_);
        EXPECT_EQ(Untouched, buffer_[4]);
    }
}

TEST_F(SafeFormat, ATextThatDoesNotFitIsCutWithoutFlags)
{
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, List(this, 8, 0, L"%s", L"abcd"));
    EXPECT_EQ("abc", Text());
    EXPECT_EQ(3, Used());
    EXPECT_EQ(2u, left_);
}

TEST_F(SafeFormat, AnOddByteAtTheEndRemains)
{
    EXPECT_EQ(STATUS_SUCCESS, List(this, 9, Flags, L"%s", L"abc"));
    EXPECT_EQ(3u, left_);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, List(this, 9, Flags, L"%s", L"abcd"));
    EXPECT_EQ(9u, left_);
}

TEST_F(SafeFormat, ContinuesWhereTheLastTextEnded)
{
    ASSERT_EQ(STATUS_SUCCESS, RtlStringCbPrintfExW(buffer_, sizeof(buffer_), &end_, &left_, Flags, L"%s", L"head "));
    PWSTR after = end_;
    ASSERT_EQ(STATUS_SUCCESS, RtlStringCbPrintfExW(after, left_, &end_, &left_, Flags, L"%s", L"tail"));
    EXPECT_EQ("head tail", Text());
    EXPECT_EQ(sizeof(buffer_) - 18, left_);
    const size_t before = left_;
    after = end_;
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, RtlStringCbPrintfExW(after, left_, &end_, &left_, Flags, L"%40s", L"x"));
    EXPECT_EQ("head tail", Text());
    EXPECT_EQ(after, end_);
    EXPECT_EQ(before, left_);
}

TEST_F(SafeFormat, RefusesWhatItCannotUseAndLeavesEverythingAlone)
{
    const auto refuse = [this](NTSTATUS status)
    {
        EXPECT_EQ(STATUS_INVALID_PARAMETER, status);
        EXPECT_EQ(nullptr, end_);
        EXPECT_EQ(0x7777u, left_);
        EXPECT_EQ(Untouched, buffer_[0]);
    };
    refuse(RtlStringCbPrintfExW(nullptr, sizeof(buffer_), &end_, &left_, Flags, L"text"));
    refuse(RtlStringCbPrintfExW(buffer_, sizeof(buffer_), &end_, &left_, Flags, nullptr));
    refuse(RtlStringCbPrintfExW(buffer_, 0, &end_, &left_, Flags, L"text"));
    refuse(RtlStringCbPrintfExW(buffer_, 1, &end_, &left_, Flags, L"text"));
    refuse(RtlStringCbPrintfExW(buffer_, 2ull * NTSTRSAFE_MAX_CCH + 2, &end_, &left_, Flags, L"text"));
    refuse(RtlStringCbPrintfExW(buffer_, sizeof(buffer_), &end_, &left_, 0x200, L"text"));
}

TEST_F(SafeFormat, EndAndRemainderAreOptional)
{
    EXPECT_EQ(STATUS_SUCCESS, RtlStringCbPrintfExW(buffer_, sizeof(buffer_), nullptr, nullptr, Flags, L"text"));
    EXPECT_EQ("text", Text());
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, RtlStringCbPrintfExW(buffer_, 4, nullptr, nullptr, Flags, L"text"));
    EXPECT_EQ("", Text());
}
}
}
