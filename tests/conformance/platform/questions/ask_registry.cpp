// Keys and values.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
constexpr SIZE_T Room = 192; // bytes; more than any answer

void AskOpen(Answers& answers, const char* label, OBJECT_ATTRIBUTES& attributes)
{
    HANDLE key = NoHandle;
    const NTSTATUS status = ZwOpenKey(&key, KEY_READ, &attributes);
    answers.Line("ZwOpenKey ", label, ": ", Status{status}, " handle ", key != NoHandle && key != nullptr);
    if (NT_SUCCESS(status))
    {
        answers.Line("ZwClose of ", label, ": ", Status{ZwClose(key)});
    }
}

void AskOpen(Answers& answers, const char* label, Name name, HANDLE root = nullptr)
{
    OpenAttributes attributes(&name, root);
    AskOpen(answers, label, attributes);
}

NTSTATUS OpenQuestionKey(HANDLE* key)
{
    Name name(QUESTION_KEY);
    OpenAttributes attributes(&name);
    return ZwOpenKey(key, KEY_READ | KEY_WRITE, &attributes);
}

// Every room from none to more than the answer needs.
void AskValue(Answers& answers, HANDLE key, const char* label, Name name, ULONG needed)
{
    UCHAR buffer[Room];
    for (int kind = 0; kind <= 2; ++kind)
    {
        for (ULONG room = 0; room <= needed; ++room)
        {
            Fill(buffer, sizeof(buffer));
            ULONG length = 0xA5A5A5A5;
            const NTSTATUS status =
                ZwQueryValueKey(key, &name, static_cast<KEY_VALUE_INFORMATION_CLASS>(kind), buffer, room, &length);
            answers.Line(
                "ZwQueryValueKey ", label, " class ", kind, " room ", room, ": ", Status{status}, " ", Hex{length});
            answers.Line("ZwQueryValueKey writes ", label, " class ", kind, " room ", room, ": ",
                Written{buffer, sizeof(buffer)});
        }
    }
}

void AskOneRoom(Answers& answers, HANDLE key, const char* label, PUNICODE_STRING name, int kind)
{
    UCHAR buffer[Room];
    Fill(buffer, sizeof(buffer));
    ULONG length = 0xA5A5A5A5;
    const NTSTATUS status =
        ZwQueryValueKey(key, name, static_cast<KEY_VALUE_INFORMATION_CLASS>(kind), buffer, sizeof(buffer), &length);
    answers.Line("ZwQueryValueKey ", label, " class ", kind, ": ", Status{status}, " ", Hex{length}, " ",
        Written{buffer, sizeof(buffer)});
}

void AskMissingValues(Answers& answers, HANDLE key)
{
    UCHAR buffer[Room];
    Name missing(L"Missing");
    for (int kind = 0; kind <= 2; ++kind)
    {
        for (ULONG room : {0u, 8u, 100u})
        {
            Fill(buffer, sizeof(buffer));
            ULONG length = 0xA5A5A5A5;
            const NTSTATUS status =
                ZwQueryValueKey(key, &missing, static_cast<KEY_VALUE_INFORMATION_CLASS>(kind), buffer, room, &length);
            answers.Line(
                "ZwQueryValueKey missing class ", kind, " room ", room, ": ", Status{status}, " ", Hex{length});
            answers.Line(
                "ZwQueryValueKey writes missing class ", kind, " room ", room, ": ", Written{buffer, sizeof(buffer)});
        }
    }
}

void AskNameForms(Answers& answers, HANDLE key)
{
    Name other(L"sTRING");
    AskOneRoom(answers, key, "by other case", &other, 0);
    Name prefix(L"Strin");
    AskOneRoom(answers, key, "by a prefix", &prefix, 2);
    Name longer(L"String");
    longer.Length = 5 * sizeof(WCHAR);
    AskOneRoom(answers, key, "by a name that is counted shorter", &longer, 2);
    UNICODE_STRING none = {};
    AskOneRoom(answers, key, "default by no buffer", &none, 2);
    Name dword(L"Dword");
    for (int kind : {5, 6, 99})
    {
        AskOneRoom(answers, key, "Dword of no class", &dword, kind);
    }
    AskOneRoom(answers, BadHandle, "by a bad handle", &dword, 2);
    AskOneRoom(answers, nullptr, "by a null handle", &dword, 2);
}

void AskSet(Answers& answers, HANDLE key, const char* label, Name name, ULONG type, const void* data, ULONG bytes)
{
    const NTSTATUS status = ZwSetValueKey(key, &name, 0, type, const_cast<void*>(data), bytes);
    answers.Line("ZwSetValueKey ", label, ": ", Status{status});
    UCHAR buffer[Room];
    for (int kind = 0; kind <= 2; ++kind)
    {
        Fill(buffer, sizeof(buffer));
        ULONG length = 0;
        const NTSTATUS read = ZwQueryValueKey(
            key, &name, static_cast<KEY_VALUE_INFORMATION_CLASS>(kind), buffer, sizeof(buffer), &length);
        answers.Line("ZwSetValueKey ", label, " read back by class ", kind, ": ", Status{read}, " ", length, " ",
            Written{buffer, sizeof(buffer)});
    }
}
}

void AskOpenKey(Answers& answers)
{
    AskOpen(answers, "existing", Name(QUESTION_KEY));
    AskOpen(answers, "by other case", Name(L"\\REGISTRY\\machine\\software\\PLATFORMQUESTIONS"));
    AskOpen(answers, "below", Name(QUESTION_KEY L"\\Sub key\\Below"));
    AskOpen(answers, "missing", Name(QUESTION_KEY L"\\Missing"));
    AskOpen(answers, "below a missing one", Name(QUESTION_KEY L"\\Missing\\Below"));
    AskOpen(answers, "with a separator at its end", Name(QUESTION_KEY L"\\"));
    AskOpen(answers, "root", Name(L"\\Registry"));
    AskOpen(answers, "machine", Name(L"\\Registry\\Machine"));
    AskOpen(answers, "outside of the registry", Name(L"\\Nowhere\\Machine"));
    AskOpen(answers, "relative without a root", Name(L"Software"));
    AskOpen(answers, "without a name", Name(L""));
    AskOpen(answers, "by a bad root", Name(L"Sub key"), BadHandle);
    HANDLE key = nullptr;
    if (!NT_SUCCESS(OpenQuestionKey(&key)))
    {
        answers.Line("the key of the questions: missing");
        return;
    }
    AskOpen(answers, "relative", Name(L"Sub key"), key);
    AskOpen(answers, "relative of other case", Name(L"SUB KEY\\below"), key);
    AskOpen(answers, "relative missing", Name(L"Missing"), key);
    AskOpen(answers, "relative without a name", Name(L""), key);
    AskOpen(answers, "absolute with a root", Name(QUESTION_KEY), key);
    ZwClose(key);

    Name name(QUESTION_KEY);
    OpenAttributes attributes(&name);
    attributes.Length = sizeof(OBJECT_ATTRIBUTES) - 1;
    AskOpen(answers, "with attributes of another length", attributes);
    name.Length -= 1;
    attributes.Length = sizeof(OBJECT_ATTRIBUTES);
    AskOpen(answers, "with a name of an odd length", attributes);
}

void AskQueryValue(Answers& answers)
{
    HANDLE key = nullptr;
    if (!NT_SUCCESS(OpenQuestionKey(&key)))
    {
        return;
    }
    AskValue(answers, key, "default", Name(L""), 45);
    AskValue(answers, key, "String", Name(L"String"), 48);
    AskValue(answers, key, "NoString", Name(L"NoString"), 48);
    AskValue(answers, key, "Expand", Name(L"Expand"), 45);
    AskValue(answers, key, "List", Name(L"List"), 45);
    AskValue(answers, key, "NoList", Name(L"NoList"), 45);
    AskValue(answers, key, "Binary", Name(L"Binary"), 40);
    AskValue(answers, key, "NoBinary", Name(L"NoBinary"), 40);
    AskValue(answers, key, "None", Name(L"None"), 36);
    // The one name by which the data behind it is not aligned.
    AskValue(answers, key, "Dword", Name(L"Dword"), 40);
    AskValue(answers, key, "Number64", Name(L"Number64"), 48);
    AskValue(answers, key, "Reversed", Name(L"Reversed"), 46);
    AskMissingValues(answers, key);
    AskNameForms(answers, key);
    ZwClose(key);
}

void AskSetValue(Answers& answers)
{
    HANDLE key = nullptr;
    if (!NT_SUCCESS(OpenQuestionKey(&key)))
    {
        return;
    }
    const WCHAR list[] = L"one\0two\0";
    const ULONG number = 0x01020304;
    AskSet(answers, key, "a list", Name(L"Set list"), REG_MULTI_SZ, list, sizeof(list));
    AskSet(answers, key, "a shorter list", Name(L"SET LIST"), REG_MULTI_SZ, list + 4, 5 * sizeof(WCHAR));
    AskSet(answers, key, "another type", Name(L"Set list"), REG_DWORD, &number, sizeof(number));
    AskSet(answers, key, "nothing", Name(L"Set list"), REG_BINARY, nullptr, 0);
    AskSet(answers, key, "an odd string", Name(L"Odd text"), REG_SZ, list, 3);
    AskSet(answers, key, "an unterminated string", Name(L"Set unterminated"), REG_SZ, list, 6);
    AskSet(answers, key, "a short number", Name(L"Set less"), REG_DWORD, &number, 2);
    AskSet(answers, key, "an unknown type", Name(L"Set type"), 0x12345, &number, sizeof(number));
    AskSet(answers, key, "the default", Name(L""), REG_SZ, L"new", 8);
    Name name(L"Set bad");
    ULONG data = number;
    answers.Line(
        "ZwSetValueKey by a bad handle: ", Status{ZwSetValueKey(BadHandle, &name, 0, REG_DWORD, &data, sizeof(data))});
    ZwClose(key);
}
}
