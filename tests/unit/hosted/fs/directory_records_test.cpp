#include "hosted/fs/directory_records.h"

#include <gtest/gtest.h>

#include <cstring>

namespace hosted
{
namespace
{
ULONG WordAt(const std::string& bytes, size_t offset)
{
    ULONG value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

TEST(DirectoryRecords, ClassesThatListNothingHaveNone)
{
    EXPECT_EQ(DirectoryRecordHead(FileBasicInformation), 0u);
    EXPECT_EQ(DirectoryRecordHead(FileNamesInformation), 12u);
}

TEST(DirectoryRecords, ARecordIsItsHeadAndTheName)
{
    const ListedFile file{L"plan.txt", L"", {.Attributes = 0, .Size = 5000}};
    const std::string record = DirectoryRecord(file, FileBothDirectoryInformation);
    ASSERT_EQ(record.size(), offsetof(FILE_BOTH_DIR_INFORMATION, FileName) + 16);
    EXPECT_EQ(WordAt(record, offsetof(FILE_BOTH_DIR_INFORMATION, FileNameLength)), 16u);
    EXPECT_EQ(WordAt(record, offsetof(FILE_BOTH_DIR_INFORMATION, EndOfFile)), 5000u);
    EXPECT_EQ(WordAt(record, offsetof(FILE_BOTH_DIR_INFORMATION, AllocationSize)), 8192u);
    EXPECT_EQ(WordAt(record, offsetof(FILE_BOTH_DIR_INFORMATION, FileAttributes)), ULONG{FILE_ATTRIBUTE_NORMAL});
    EXPECT_EQ(std::memcmp(record.data() + offsetof(FILE_BOTH_DIR_INFORMATION, FileName), L"plan.txt", 16), 0);
}

TEST(DirectoryRecords, RecordsAreLinkedWhileThereIsRoom)
{
    const std::string record = DirectoryRecord({L"ab", L"", {}}, FileNamesInformation);
    ASSERT_EQ(record.size(), 16u);
    const std::string odd = DirectoryRecord({L"abc", L"", {}}, FileNamesInformation);
    std::string answer;
    size_t last = 0;
    EXPECT_FALSE(AppendDirectoryRecord(&answer, &last, record, 15));
    EXPECT_EQ(answer, "");
    ASSERT_TRUE(AppendDirectoryRecord(&answer, &last, odd, 64));
    ASSERT_TRUE(AppendDirectoryRecord(&answer, &last, record, 64));
    EXPECT_EQ(last, 24u) << "a record begins at a multiple of eight";
    EXPECT_EQ(WordAt(answer, 0), 24u);
    EXPECT_EQ(WordAt(answer, 24), 0u) << "the last has none after it";
    EXPECT_EQ(answer.size(), 40u);
    EXPECT_FALSE(AppendDirectoryRecord(&answer, &last, record, 55));
    EXPECT_EQ(answer.size(), 40u);
    EXPECT_EQ(WordAt(answer, 24), 0u);
}
}
}
