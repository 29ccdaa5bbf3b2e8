#include "tests/unit/hosted/flt/filter_fixture.h"

namespace flt_test
{
namespace
{
constexpr ULONG NormalizedQuery = FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_DEFAULT;

std::string Text(const UNICODE_STRING& string)
{
    return Narrow(View(string));
}

class FltNames : public FilterTest
{
protected:
    // Runs the body inside the pre-operation callback of an operation.
    using Body = std::function<void(PFLT_CALLBACK_DATA)>;
    void InPre(const std::function<void()>& operation, const Body& body)
    {
        bool ran = false;
        callbacks.Pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*)
        {
            ran = true;
            body(data);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        };
        operation();
        callbacks.Pre = nullptr;
        EXPECT_TRUE(ran);
    }
    void InCreate(WideView path, const Body& body, ULONG options = 0, PFILE_OBJECT root = nullptr)
    {
        OpenRequest request;
        request.Path = WideString(path);
        request.Root = root;
        request.Options = options;
        request.FileId = 0x0004000000000021;
        PFILE_OBJECT file = nullptr;
        InPre([&] { ASSERT_EQ(OpenFile(request, &file), STATUS_SUCCESS); }, body);
        CloseFile(file);
    }
    // The name that a query in a create gives.
    static std::string Query(PFLT_CALLBACK_DATA data, ULONG options)
    {
        PFLT_FILE_NAME_INFORMATION information;
        const NTSTATUS status = FltGetFileNameInformation(data, options, &information);
        if (!NT_SUCCESS(status))
        {
            EXPECT_EQ(information, nullptr);
            return "failed";
        }
        const std::string name = Text(information->Name);
        FltReleaseFileNameInformation(information);
        return name;
    }
    // The parts of the name, parsed.
    void Parts(WideView normalized, const std::function<void(const FLT_FILE_NAME_INFORMATION&)>& check)
    {
        files_->Normalized = WideString(normalized);
        InCreate(L"\\??\\Q:\\x",
            [&](PFLT_CALLBACK_DATA data)
            {
                PFLT_FILE_NAME_INFORMATION information;
                ASSERT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_SUCCESS);
                EXPECT_EQ(information->NamesParsed, 0);
                ASSERT_EQ(FltParseFileNameInformation(information), STATUS_SUCCESS);
                EXPECT_EQ(information->NamesParsed, 0xF);
                check(*information);
                FltReleaseFileNameInformation(information);
            });
    }
};

TEST_F(FltNames, NormalizedNameIsTheVolumesAndTheFileSystems)
{
    InCreate(L"\\??\\Q:\\Dir\\LONGNA~1.TXT",
        [&](PFLT_CALLBACK_DATA data)
        {
            PFLT_FILE_NAME_INFORMATION information = nullptr;
            ASSERT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_SUCCESS);
            EXPECT_EQ(information->Size, sizeof(FLT_FILE_NAME_INFORMATION));
            EXPECT_EQ(information->Format, static_cast<ULONG>(FLT_FILE_NAME_NORMALIZED));
            EXPECT_EQ(Text(information->Name), "\\Device\\HarddiskVolume7\\Dir\\long name.txt");
            EXPECT_EQ(information->Name.MaximumLength, information->Name.Length);
            EXPECT_EQ(Text(information->Volume), "\\Device\\HarddiskVolume7");
            EXPECT_EQ(information->Volume.Buffer, information->Name.Buffer);
            EXPECT_EQ(information->FinalComponent.Length, 0);
            EXPECT_EQ(DescribeLiveFilterObjects(), "file name information x1");
            FltReleaseFileNameInformation(information);
        });
    EXPECT_EQ(files_->NameOptions & FILE_OPEN_BY_FILE_ID, 0u);
}

TEST_F(FltNames, OpenedNameIsAsSpelled)
{
    constexpr ULONG Opened = FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_DEFAULT;
    const auto expect = [&](const char* name)
    { return [=](PFLT_CALLBACK_DATA data) { EXPECT_EQ(Query(data, Opened), name); }; };
    InCreate(L"\\??\\Q:\\Dir\\LONGNA~1.TXT", expect("\\Device\\HarddiskVolume7\\Dir\\LONGNA~1.TXT"));
    const PFILE_OBJECT root = Open(L"\\??\\Q:\\Dir");
    InCreate(L"below", expect("\\Device\\HarddiskVolume7\\Dir\\below"), 0, root);
    InCreate(L":stream", expect("\\Device\\HarddiskVolume7\\Dir:stream"), 0, root);
    CloseFile(root);
    InCreate(L"\\??\\Q:", expect("\\Device\\HarddiskVolume7"));
}

TEST_F(FltNames, ByFileIdTheFileSystemIsAsked)
{
    for (const ULONG format : {FLT_FILE_NAME_NORMALIZED, FLT_FILE_NAME_OPENED})
    {
        InCreate(
            L"\\??\\Q:",
            [&](PFLT_CALLBACK_DATA data)
            {
                EXPECT_EQ(
                    Query(data, format | FLT_FILE_NAME_QUERY_DEFAULT), "\\Device\\HarddiskVolume7\\Dir\\long name.txt");
            },
            FILE_OPEN_BY_FILE_ID);
        EXPECT_EQ(files_->NameOptions, static_cast<ULONG>(FILE_OPEN_BY_FILE_ID));
    }
}

TEST_F(FltNames, RefusedWhereNoNameCanBeHad)
{
    const PFILE_OBJECT file = Open();
    alignas(PAGE_SIZE) static char page[PAGE_SIZE];
    IO_STATUS_BLOCK status;
    PFLT_FILE_NAME_INFORMATION information;
    const auto refused = [&](PFLT_CALLBACK_DATA data)
    { EXPECT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_FLT_INVALID_NAME_REQUEST); };
    InPre([&] { PagingRead(file, 0, page, PAGE_SIZE, &status); }, refused);
    InPre([&] { ReadFile(file, 0, page, 1, &status); },
        [&](PFLT_CALLBACK_DATA data) { EXPECT_NE(Query(data, NormalizedQuery), "failed"); });
    InPre([&] { CloseFile(file); },
        [&](PFLT_CALLBACK_DATA data)
        {
            const bool closing = data->Iopb->MajorFunction == IRP_MJ_CLOSE;
            EXPECT_EQ(Query(data, NormalizedQuery) == "failed", closing);
        });

    files_->Handler = [](FLT_IO_PARAMETER_BLOCK&, IO_STATUS_BLOCK& block)
    { return block.Status = STATUS_OBJECT_NAME_NOT_FOUND; };
    callbacks.Pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) { return FLT_PREOP_SUCCESS_WITH_CALLBACK; };
    callbacks.Post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID)
    {
        refused(data);
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    OpenRequest request;
    request.Path = L"\\??\\Q:\\none";
    PFILE_OBJECT none;
    EXPECT_EQ(OpenFile(request, &none), STATUS_OBJECT_NAME_NOT_FOUND);
    files_->Handler = nullptr;
}

TEST_F(FltNames, StatusesOfTheQuery)
{
    InCreate(L"\\??\\Q:\\x",
        [&](PFLT_CALLBACK_DATA data)
        {
            PFLT_FILE_NAME_INFORMATION information;
            EXPECT_EQ(
                FltGetFileNameInformation(data, FLT_FILE_NAME_NORMALIZED, &information), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(
                FltGetFileNameInformation(data, FLT_FILE_NAME_QUERY_DEFAULT, &information), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(static_cast<ULONG>(FltGetFileNameInformation(
                          data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_CACHE_ONLY, &information)),
                0xC01C0018u);
            FailRoutine("FltGetFileNameInformation");
            EXPECT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_EQ(information, nullptr);
            for (const int allocation : {1, 2})
            {
                FailRoutine("ExAllocatePoolWithTag", allocation);
                EXPECT_EQ(
                    FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_INSUFFICIENT_RESOURCES);
            }
            ResetFailures();
            files_->NameStatus = STATUS_OBJECT_PATH_NOT_FOUND;
            EXPECT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_OBJECT_PATH_NOT_FOUND);
            files_->NameStatus = STATUS_SUCCESS;
            files_->Normalized = WideString(40000, L'x');
            EXPECT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_NAME_TOO_LONG);
        });
}

TEST_F(FltNames, ParsesAFile)
{
    Parts(L"\\Docs\\My.Files\\Test Results.txt",
        [](const FLT_FILE_NAME_INFORMATION& name)
        {
            EXPECT_EQ(Text(name.Share), "");
            EXPECT_EQ(Text(name.ParentDir), "\\Docs\\My.Files\\");
            EXPECT_EQ(Text(name.FinalComponent), "Test Results.txt");
            EXPECT_EQ(Text(name.Extension), "txt");
            EXPECT_EQ(Text(name.Stream), "");
            EXPECT_EQ(Text(name.Volume), "\\Device\\HarddiskVolume7");
        });
}

TEST_F(FltNames, ParsesAStream)
{
    Parts(L"\\Docs\\Test.Results:notes.old:$DATA",
        [](const FLT_FILE_NAME_INFORMATION& name)
        {
            EXPECT_EQ(Text(name.ParentDir), "\\Docs\\");
            EXPECT_EQ(Text(name.FinalComponent), "Test.Results:notes.old:$DATA");
            EXPECT_EQ(Text(name.Extension), "Results");
            EXPECT_EQ(Text(name.Stream), ":notes.old:$DATA");
        });
}

TEST_F(FltNames, ParsesNamesWithoutSomeParts)
{
    Parts(L"\\noext",
        [](const FLT_FILE_NAME_INFORMATION& name)
        {
            EXPECT_EQ(Text(name.ParentDir), "\\");
            EXPECT_EQ(Text(name.FinalComponent), "noext");
            EXPECT_EQ(name.Extension.Buffer, nullptr);
        });
    Parts(L"\\",
        [](const FLT_FILE_NAME_INFORMATION& name)
        {
            EXPECT_EQ(Text(name.ParentDir), "\\");
            EXPECT_EQ(Text(name.FinalComponent), "");
        });
    Parts(L"",
        [](const FLT_FILE_NAME_INFORMATION& name)
        {
            EXPECT_EQ(Text(name.ParentDir), "");
            EXPECT_EQ(Text(name.FinalComponent), "");
        });
}

TEST_F(FltNames, ParsesAShare)
{
    const MountedFake network = Mount(L"\\Device\\Mup", L"", FILE_DEVICE_NETWORK_FILE_SYSTEM);
    network.Files->Normalized = L"\\server\\share\\Dir\\file.doc";
    InCreate(L"\\Device\\Mup\\server\\share\\Dir\\file.doc",
        [](PFLT_CALLBACK_DATA data)
        {
            PFLT_FILE_NAME_INFORMATION information;
            ASSERT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_SUCCESS);
            ASSERT_EQ(FltParseFileNameInformation(information), STATUS_SUCCESS);
            EXPECT_EQ(Text(information->Volume), "\\Device\\Mup");
            EXPECT_EQ(Text(information->Share), "\\server\\share");
            EXPECT_EQ(Text(information->ParentDir), "\\Dir\\");
            EXPECT_EQ(Text(information->FinalComponent), "file.doc");
            FltReleaseFileNameInformation(information);
        });
    DismountVolume(network.Mounted);
}

TEST_F(FltNames, ParsingFailsWhenToldTo)
{
    InCreate(L"\\??\\Q:\\x",
        [](PFLT_CALLBACK_DATA data)
        {
            PFLT_FILE_NAME_INFORMATION information;
            ASSERT_EQ(FltGetFileNameInformation(data, NormalizedQuery, &information), STATUS_SUCCESS);
            FailRoutine("FltParseFileNameInformation");
            EXPECT_EQ(FltParseFileNameInformation(information), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(information->NamesParsed, 0);
            FltReleaseFileNameInformation(information);
            EXPECT_DEATH(FltReleaseFileNameInformation(information), "FLT_NAME_NOT_ALIVE");
            EXPECT_DEATH(FltParseFileNameInformation(information), "FLT_NAME_NOT_ALIVE");
        });
}
}
}
