// Files and directories.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
constexpr ULONG ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr SIZE_T Room = 1024; // bytes

NTSTATUS Open(HANDLE* file, Name name, ACCESS_MASK access, ULONG options)
{
    OpenAttributes attributes(&name);
    IO_STATUS_BLOCK result;
    return ZwOpenFile(
        file, access | SYNCHRONIZE, &attributes, &result, ShareAll, options | FILE_SYNCHRONOUS_IO_NONALERT);
}

void AskOpen(Answers& answers, const char* label, OBJECT_ATTRIBUTES& attributes, ACCESS_MASK access, ULONG options)
{
    HANDLE file = NoHandle;
    IO_STATUS_BLOCK result;
    Fill(&result, sizeof(result));
    const NTSTATUS status =
        ZwOpenFile(&file, access | SYNCHRONIZE, &attributes, &result, ShareAll, options | FILE_SYNCHRONOUS_IO_NONALERT);
    if (NT_SUCCESS(status))
    {
        answers.Line("ZwOpenFile ", label, ": ", Status{status}, " block ", Status{result.Status}, " ",
            result.Information, " handle ", file != NoHandle && file != nullptr);
        ZwClose(file);
    }
    else
    {
        answers.Line("ZwOpenFile ", label, ": ", Status{status});
    }
}

void AskOpen(Answers& answers, const char* label, Name name, ULONG options, HANDLE root = nullptr)
{
    OpenAttributes attributes(&name, root);
    AskOpen(answers, label, attributes, FILE_READ_DATA, options);
}

// Hides what the run decides: times, allocation, and the short name's spelling.
void Mask(UCHAR* record, SIZE_T bytes)
{
    const struct
    {
        LONG From, To;
    } ranges[] = {{FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, ShortNameLength) + 1, // what aligns the short name
                      FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, ShortName)},
        {FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, CreationTime), FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, EndOfFile)},
        {FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, AllocationSize),
            FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileAttributes)},
        {FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, ShortName), FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName)}};
    for (const auto& range : ranges)
    {
        for (LONG index = range.From; index < range.To && static_cast<SIZE_T>(index) < bytes; ++index)
        {
            record[index] = 0xEE;
        }
    }
}

NTSTATUS Query(
    HANDLE folder, UCHAR* buffer, ULONG room, int kind, PUNICODE_STRING pattern, bool restart, IO_STATUS_BLOCK* result)
{
    Fill(buffer, Room);
    Fill(result, sizeof(*result));
    return ZwQueryDirectoryFile(folder, nullptr, nullptr, nullptr, result, buffer, room,
        static_cast<FILE_INFORMATION_CLASS>(kind), TRUE, pattern, restart);
}

void AskRooms(Answers& answers, const char* label, Name pattern, ULONG needed)
{
    for (ULONG room = 0; room <= needed + 9; ++room)
    {
        HANDLE folder = nullptr;
        alignas(8) UCHAR buffer[Room];
        IO_STATUS_BLOCK result;
        if (!NT_SUCCESS(Open(&folder, Name(QUESTION_FOLDER), FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE)))
        {
            return;
        }
        const NTSTATUS status = Query(folder, buffer, room, FileBothDirectoryInformation, &pattern, false, &result);
        if (NT_ERROR(status))
        {
            answers.Line(
                "ZwQueryDirectoryFile ", label, " room ", room, ": ", Status{status}, " ", Written{buffer, Room});
        }
        else
        {
            Mask(buffer, room);
            answers.Line("ZwQueryDirectoryFile ", label, " room ", room, ": ", Status{status}, " block ",
                Status{result.Status}, " ", result.Information, " ", Written{buffer, Room});
        }
        ZwClose(folder);
    }
}

// One query on a fresh handle, then the same again without and with a restart.
void AskPattern(Answers& answers, const char* label, PUNICODE_STRING pattern)
{
    HANDLE folder = nullptr;
    alignas(8) UCHAR buffer[Room];
    IO_STATUS_BLOCK result;
    if (!NT_SUCCESS(Open(&folder, Name(QUESTION_FOLDER), FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE)))
    {
        return;
    }
    const char* const steps[] = {"first", "next", "restarted"};
    for (int step = 0; step < 3; ++step)
    {
        const NTSTATUS status = Query(folder, buffer, Room, FileBothDirectoryInformation, pattern, step == 2, &result);
        const auto* entry = reinterpret_cast<const FILE_BOTH_DIR_INFORMATION*>(buffer);
        const bool found = NT_SUCCESS(status);
        answers.Line("ZwQueryDirectoryFile ", label, " ", steps[step], ": ", Status{status}, " ",
            Text{found ? entry->FileName : nullptr, entry->FileNameLength / sizeof(WCHAR)});
    }
    ZwClose(folder);
}

void AskPattern(Answers& answers, const char* label, Name pattern)
{
    AskPattern(answers, label, &pattern);
}

// The short name that a long one has, and what is found by it.
void AskShortName(Answers& answers, const char* label, Name name)
{
    HANDLE folder = nullptr;
    alignas(8) UCHAR buffer[Room];
    IO_STATUS_BLOCK result;
    if (!NT_SUCCESS(Open(&folder, Name(QUESTION_FOLDER), FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE)))
    {
        return;
    }
    const auto* entry = reinterpret_cast<const FILE_BOTH_DIR_INFORMATION*>(buffer);
    NTSTATUS status = Query(folder, buffer, Room, FileBothDirectoryInformation, &name, false, &result);
    ZwClose(folder);
    const SIZE_T count = NT_SUCCESS(status) ? static_cast<UCHAR>(entry->ShortNameLength) / sizeof(WCHAR) : 0;
    answers.Line("ZwQueryDirectoryFile short name of ", label, ": has one ", count != 0, " fits ", count <= 12);
    if (count == 0 || count > 12 ||
        !NT_SUCCESS(Open(&folder, Name(QUESTION_FOLDER), FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE)))
    {
        return;
    }
    WCHAR shortName[12];
    RtlCopyMemory(shortName, entry->ShortName, count * sizeof(WCHAR));
    Name pattern(shortName, count);
    status = Query(folder, buffer, Room, FileBothDirectoryInformation, &pattern, false, &result);
    answers.Line("ZwQueryDirectoryFile by the short name of ", label, ": ", Status{status}, " ",
        Text{NT_SUCCESS(status) ? entry->FileName : nullptr, entry->FileNameLength / sizeof(WCHAR)});
    ZwClose(folder);
}

void AskClasses(Answers& answers, HANDLE folder)
{
    alignas(8) UCHAR buffer[Room];
    IO_STATUS_BLOCK result;
    Name pattern(L"short.txt");
    for (int kind : {1, 2, 3, 12})
    {
        const NTSTATUS status = Query(folder, buffer, Room, kind, &pattern, true, &result);
        const SIZE_T nameAt = kind == 1 ? 64 : kind == 2 ? 68 : kind == 3 ? 94 : 12;
        ULONG nameBytes;
        RtlCopyMemory(&nameBytes, buffer + (kind == 12 ? 8 : 60), sizeof(nameBytes));
        const bool found = NT_SUCCESS(status) && nameBytes < 100;
        answers.Line("ZwQueryDirectoryFile class ", kind, ": ", Status{status}, " ", result.Information, " ",
            Text{found ? reinterpret_cast<const WCHAR*>(buffer + nameAt) : nullptr, nameBytes / sizeof(WCHAR)});
    }
    for (int kind : {0, 5, 99})
    {
        const NTSTATUS status = Query(folder, buffer, Room, kind, &pattern, true, &result);
        answers.Line("ZwQueryDirectoryFile no class ", kind, ": ", Status{status}, " ", Written{buffer, Room});
    }
}
}

void AskOpenFile(Answers& answers)
{
    AskOpen(answers, "file", Name(QUESTION_FOLDER L"\\short.txt"), FILE_NON_DIRECTORY_FILE);
    AskOpen(answers, "file of other case", Name(QUESTION_FOLDER L"\\SHORT.TXT"), FILE_NON_DIRECTORY_FILE);
    AskOpen(answers, "file of any kind", Name(QUESTION_FOLDER L"\\short.txt"), 0);
    AskOpen(answers, "folder", Name(QUESTION_FOLDER), FILE_DIRECTORY_FILE);
    AskOpen(answers, "folder with a separator at its end", Name(QUESTION_FOLDER L"\\"), FILE_DIRECTORY_FILE);
    AskOpen(answers, "file with a separator at its end", Name(QUESTION_FOLDER L"\\short.txt\\"), 0);
    AskOpen(answers, "folder as a file", Name(QUESTION_FOLDER), FILE_NON_DIRECTORY_FILE);
    AskOpen(answers, "file as a folder", Name(QUESTION_FOLDER L"\\short.txt"), FILE_DIRECTORY_FILE);
    AskOpen(answers, "missing file", Name(QUESTION_FOLDER L"\\missing.txt"), 0);
    AskOpen(answers, "file in a missing folder", Name(QUESTION_FOLDER L"\\missing\\file.txt"), 0);
    AskOpen(answers, "file below a file", Name(QUESTION_FOLDER L"\\short.txt\\below"), 0);
    AskOpen(answers, "file by a wildcard", Name(QUESTION_FOLDER L"\\*.txt"), 0);
    AskOpen(answers, "file with an empty component", Name(QUESTION_FOLDER L"\\\\short.txt"), 0);
    AskOpen(answers, "missing drive", Name(L"\\??\\Q:\\file.txt"), 0);
    AskOpen(answers, "missing device", Name(L"\\Device\\PlatformQuestionsMissing"), 0);
    AskOpen(answers, "root folder", Name(L"\\??\\C:\\"), FILE_DIRECTORY_FILE);
    AskOpen(answers, "relative without a root", Name(L"short.txt"), 0);
    AskOpen(answers, "by a bad root", Name(L"short.txt"), 0, BadHandle);
    HANDLE folder = nullptr;
    if (NT_SUCCESS(Open(&folder, Name(QUESTION_FOLDER), FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE)))
    {
        AskOpen(answers, "relative", Name(L"short.txt"), 0, folder);
        AskOpen(answers, "relative in a folder", Name(L"A folder of a long name\\inner.txt"), 0, folder);
        AskOpen(answers, "relative missing", Name(L"missing.txt"), 0, folder);
        AskOpen(answers, "absolute with a root", Name(QUESTION_FOLDER L"\\short.txt"), 0, folder);
        ZwClose(folder);
    }
    Name name(QUESTION_FOLDER);
    OpenAttributes attributes(&name);
    attributes.Length -= 1;
    AskOpen(answers, "with attributes of another length", attributes, FILE_READ_DATA, 0);
}

void AskWriteFile(Answers& answers)
{
    HANDLE file = nullptr;
    if (!NT_SUCCESS(Open(&file, Name(QUESTION_FOLDER L"\\written.txt"), FILE_WRITE_DATA, FILE_NON_DIRECTORY_FILE)))
    {
        answers.Line("the file to write: missing");
        return;
    }
    char text[] = "0123456789";
    const struct
    {
        const char* Label;
        LONGLONG Offset;
        ULONG Length;
        bool AtPosition;
    } writes[] = {{"at the start", 0, 10, false}, {"at the position", 0, 3, true}, {"inside", 4, 2, false},
        {"at the position again", 0, 1, true}, {"behind the end", 20, 4, false}, {"of nothing", 2, 0, false},
        {"at a negative place", -3, 1, false}};
    for (const auto& write : writes)
    {
        IO_STATUS_BLOCK result;
        Fill(&result, sizeof(result));
        LARGE_INTEGER offset;
        offset.QuadPart = write.Offset;
        const NTSTATUS status = ZwWriteFile(file, nullptr, nullptr, nullptr, &result, text, write.Length,
            write.AtPosition ? nullptr : &offset, nullptr);
        if (NT_SUCCESS(status))
        {
            answers.Line("ZwWriteFile ", write.Label, ": ", Status{status}, " block ", Status{result.Status}, " ",
                result.Information);
        }
        else
        {
            answers.Line("ZwWriteFile ", write.Label, ": ", Status{status});
        }
    }
    ZwClose(file);
    IO_STATUS_BLOCK result = {};
    LARGE_INTEGER offset = {};
    answers.Line("ZwWriteFile by a bad handle: ",
        Status{ZwWriteFile(BadHandle, nullptr, nullptr, nullptr, &result, text, 1, &offset, nullptr)});
    Name name(QUESTION_KEY);
    OpenAttributes attributes(&name);
    HANDLE key = nullptr;
    ZwOpenKey(&key, KEY_READ, &attributes);
    answers.Line("ZwWriteFile to a key: ",
        Status{ZwWriteFile(key, nullptr, nullptr, nullptr, &result, text, 1, &offset, nullptr)});
    ZwClose(key);
}

void AskQueryDirectory(Answers& answers)
{
    AskRooms(answers, "a short file", Name(L"short.txt"), 94 + 18);
    AskRooms(answers, "a long file", Name(L"A file of a long name.txt"), 94 + 50);
    AskPattern(answers, "by its name", Name(L"short.txt"));
    AskPattern(answers, "by its name in other case", Name(L"SHORT.txt"));
    AskPattern(answers, "by a long name", Name(L"a file of a long name.TXT"));
    AskPattern(answers, "of a folder", Name(L"A folder of a long name"));
    AskPattern(answers, "missing", Name(L"missing.txt"));
    AskPattern(answers, "by the beginning of a name", Name(L"short"));
    AskPattern(answers, "by a wildcard", Name(L"sh*.txt"));
    AskPattern(answers, "by a wildcard of nothing", Name(L"*.none"));
    AskPattern(answers, "by an empty name", Name(L""));
    AskPattern(answers, "by no name", nullptr);
    AskShortName(answers, "a long file", Name(L"A file of a long name.txt"));
    AskShortName(answers, "a long folder", Name(L"A folder of a long name"));
    AskShortName(answers, "a short file", Name(L"short.txt"));
    HANDLE folder = nullptr;
    if (!NT_SUCCESS(Open(&folder, Name(QUESTION_FOLDER), FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE)))
    {
        return;
    }
    AskClasses(answers, folder);
    ZwClose(folder);
    alignas(8) UCHAR buffer[Room];
    IO_STATUS_BLOCK result;
    Name pattern(L"short.txt");
    answers.Line("ZwQueryDirectoryFile by a bad handle: ",
        Status{Query(BadHandle, buffer, Room, FileBothDirectoryInformation, &pattern, false, &result)});
    HANDLE file = nullptr;
    if (NT_SUCCESS(Open(&file, Name(QUESTION_FOLDER L"\\short.txt"), FILE_READ_DATA, FILE_NON_DIRECTORY_FILE)))
    {
        answers.Line("ZwQueryDirectoryFile of a file: ",
            Status{Query(file, buffer, Room, FileBothDirectoryInformation, &pattern, false, &result)});
        ZwClose(file);
    }
}
}
