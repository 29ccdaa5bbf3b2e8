#include "tests/unit/hosted/fs/volume_fixture.h"

#include "hosted/ke/user_access.h"

#include <cstring>

namespace hosted
{
namespace
{
class DirectoryListing : public VolumeTest
{
protected:
    struct Answer
    {
        NTSTATUS Status = 0;
        std::vector<std::string> Names;
    };

    static Answer Query(
        PFILE_OBJECT directory, WideView pattern = {}, bool single = false, bool restart = false, ULONG length = 4096)
    {
        alignas(8) char buffer[4096];
        ULONG_PTR used = 0;
        Answer answer;
        answer.Status =
            QueryDirectory(directory, FileBothDirectoryInformation, single, restart, pattern, buffer, length, &used);
        for (size_t at = 0; NT_SUCCESS(answer.Status);)
        {
            FILE_BOTH_DIR_INFORMATION record;
            std::memcpy(&record, buffer + at, FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName));
            const auto* name =
                reinterpret_cast<WCHAR*>(buffer + at + FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName));
            std::string shown = Narrow(WideView(name, record.FileNameLength / sizeof(WCHAR)));
            if (record.ShortNameLength != 0)
            {
                shown += "|" + Narrow(WideView(record.ShortName, record.ShortNameLength / sizeof(WCHAR)));
            }
            answer.Names.push_back(shown);
            if (record.NextEntryOffset == 0)
            {
                break;
            }
            EXPECT_EQ(record.NextEntryOffset % 8, 0u);
            at += record.NextEntryOffset;
        }
        return answer;
    }

    using Names = std::vector<std::string>;
};

TEST_F(DirectoryListing, ShowsNamesInOrderWithTheirShortNames)
{
    MakeDirectory(L"\\dir");
    MakeFile(L"\\dir\\b.txt");
    MakeFile(L"\\dir\\A long name.text");
    MakeDirectory(L"\\dir\\c");
    PFILE_OBJECT dir = OpenDirectory(L"\\dir");
    EXPECT_EQ(Query(dir).Names, (Names{".", "..", "A long name.text|ALONGN~1.TEX", "b.txt", "c"}));
    EXPECT_EQ(Query(dir).Status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Query(dir, {}, false, true).Names.size(), 5u);
    CloseFile(dir);
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(Query(root).Names, (Names{"dir"}));
    CloseFile(root);
}

TEST_F(DirectoryListing, PatternsMatchLongAndShortNames)
{
    MakeDirectory(L"\\dir");
    for (WideView name : {WideView(L"one.txt"), WideView(L"two.txt"), WideView(L"Long name.doc")})
    {
        MakeFile(L"\\dir\\" + WideString(name));
    }
    const auto list = [&](WideView pattern)
    {
        PFILE_OBJECT dir = OpenDirectory(L"\\dir");
        Answer answer = Query(dir, pattern);
        CloseFile(dir);
        return answer;
    };
    EXPECT_EQ(list(L"*.TXT").Names, (Names{"one.txt", "two.txt"}));
    EXPECT_EQ(list(L"LONGNA~1.DOC").Names, (Names{"Long name.doc|LONGNA~1.DOC"}));
    EXPECT_EQ(list(L"long name.doc").Names, (Names{"Long name.doc|LONGNA~1.DOC"}));
    EXPECT_EQ(list(L"*~1*").Names, (Names{"Long name.doc|LONGNA~1.DOC"}));
    EXPECT_EQ(list(L"*.none").Status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(list(L"none").Status, STATUS_NO_SUCH_FILE);
}

TEST_F(DirectoryListing, OnlyTheFirstQuerySaysThatNoneIsSuch)
{
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(Query(root, L"none").Status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(Query(root, L"none").Status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Query(root, L"none", false, true).Status, STATUS_NO_MORE_FILES);
    CloseFile(root);
}

TEST_F(DirectoryListing, TheFirstPatternHolds)
{
    MakeFile(L"\\a.1");
    MakeFile(L"\\b.1");
    MakeFile(L"\\c.2");
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(Query(root, L"*.1", true).Names, (Names{"a.1"}));
    EXPECT_EQ(Query(root, L"*.2", true).Names, (Names{"b.1"}));
    EXPECT_EQ(Query(root, {}, true).Status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Query(root, L"*.2", true, true).Names, (Names{"c.2"}));
    CloseFile(root);
}

TEST_F(DirectoryListing, AScanGoesOnWhereItStoodWhateverHappens)
{
    for (WideView name : {WideView(L"\\a"), WideView(L"\\b"), WideView(L"\\d")})
    {
        MakeFile(name);
    }
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(Query(root, {}, true).Names, (Names{"a"}));
    EXPECT_EQ(Query(root, {}, true).Names, (Names{"b"}));
    Attempt(L"\\b", {.Options = FILE_DELETE_ON_CLOSE});
    MakeFile(L"\\aa");
    MakeFile(L"\\c");
    EXPECT_EQ(Query(root).Names, (Names{"c", "d"}));
    CloseFile(root);
}

TEST_F(DirectoryListing, SmallBuffersGetWhatFits)
{
    MakeFile(L"\\abcdefgh");
    MakeFile(L"\\bcdefghi");
    PFILE_OBJECT root = OpenDirectory(L"\\");
    const ULONG fixed = FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
    EXPECT_EQ(Query(root, {}, false, false, fixed - 1).Status, STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(Query(root, {}, false, false, fixed + 16).Names, (Names{"abcdefgh"}));
    alignas(8) char buffer[200];
    ULONG_PTR used = 0;
    EXPECT_EQ(QueryDirectory(root, FileBothDirectoryInformation, false, false, {}, buffer, fixed + 4, &used),
        STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(used, fixed + 4u);
    EXPECT_EQ(Narrow(WideView(reinterpret_cast<WCHAR*>(buffer + fixed), 2)), "bc");
    EXPECT_EQ(Query(root).Status, STATUS_NO_MORE_FILES);
    CloseFile(root);
}

TEST_F(DirectoryListing, OtherRecordsAndWrongTargets)
{
    MakeFile(L"\\abc", "12345");
    PFILE_OBJECT root = OpenDirectory(L"\\");
    alignas(8) char buffer[200];
    ULONG_PTR used = 0;
    EXPECT_EQ(QueryDirectory(root, FileNamesInformation, false, true, {}, buffer, 200, &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 12u + 6u);
    EXPECT_EQ(QueryDirectory(root, FileDirectoryInformation, false, true, {}, buffer, 200, &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 64u + 6u);
    LONGLONG size;
    std::memcpy(&size, buffer + 40, sizeof(size));
    EXPECT_EQ(size, 5);
    EXPECT_EQ(QueryDirectory(root, FileFullDirectoryInformation, false, true, {}, buffer, 200, &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 68u + 6u);
    EXPECT_EQ(
        QueryDirectory(root, FileBasicInformation, false, true, {}, buffer, 200, &used), STATUS_INVALID_INFO_CLASS);
    UserRegion region(PAGE_SIZE);
    region.Protect(true, false);
    EXPECT_EQ(QueryDirectory(root, FileNamesInformation, false, true, {}, region.Base(), 200, &used),
        STATUS_ACCESS_VIOLATION);
    CloseFile(root);
    PFILE_OBJECT file = Open(L"\\abc");
    EXPECT_EQ(
        QueryDirectory(file, FileNamesInformation, false, true, {}, buffer, 200, &used), STATUS_INVALID_PARAMETER);
    CloseFile(file);
}

TEST_F(DirectoryListing, ShortNamesCanBeSwitchedOff)
{
    Dismount();
    Options.ShortNames = false;
    Mount();
    MakeFile(L"\\A long name");
    PFILE_OBJECT root = OpenDirectory(L"\\");
    EXPECT_EQ(Query(root).Names, (Names{"A long name"}));
    EXPECT_EQ(Attempt(L"\\ALONGN~1", {.Disposition = FILE_OPEN}), STATUS_OBJECT_NAME_NOT_FOUND);
    CloseFile(root);
}
}
}
