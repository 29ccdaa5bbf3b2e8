// The questions, by the kind of routine they are about. Each asks the platform and writes down what it answers; none
// leaves anything behind.
#pragma once

#include "tests/conformance/platform/questions/answers.h"

#include <initializer_list>

namespace questions
{
// A counted string over a literal, or over a terminated text's first characters.
struct Name : UNICODE_STRING
{
    template <SIZE_T Count>
    Name(const WCHAR (&text)[Count]) : Name(text, Count - 1)
    {
    }
    Name(const WCHAR* text, SIZE_T count)
    {
        Length = static_cast<USHORT>(count * sizeof(WCHAR));
        MaximumLength = static_cast<USHORT>(Length + sizeof(WCHAR));
        Buffer = const_cast<PWSTR>(text);
    }
};

// Attributes for opening that name: by the kernel's own handle, without regard to case.
struct OpenAttributes : OBJECT_ATTRIBUTES
{
    explicit OpenAttributes(PUNICODE_STRING name, HANDLE root = nullptr)
    {
        InitializeObjectAttributes(this, name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, root, nullptr);
    }
};

// What stands at a handle before anything was opened.
inline const HANDLE NoHandle = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(0xA5A5));
// A handle that was never given out, in the caller's own table.
inline const HANDLE BadHandle = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(0x123454));

// A folder and a key that whoever runs the questions has filled; see environment.h of the test.
#define QUESTION_FOLDER L"\\??\\C:\\questions"
#define QUESTION_KEY L"\\Registry\\Machine\\Software\\PlatformQuestions"
// A program that runs while the questions are asked.
inline constexpr WCHAR RunningProgram[] = L"services.exe";

void AskUpcase(Answers& answers);
void AskHash(Answers& answers);
void AskCountedStrings(Answers& answers);
void AskFormatting(Answers& answers);
void AskDebugPrint();
void AskTime(Answers& answers);
void AskVersion(Answers& answers);
void AskOpenKey(Answers& answers);
void AskQueryValue(Answers& answers);
void AskSetValue(Answers& answers);
void AskSymbolicLinks(Answers& answers);
void AskDevices(Answers& answers, PDRIVER_OBJECT driver);
void AskOpenFile(Answers& answers);
void AskWriteFile(Answers& answers);
void AskQueryDirectory(Answers& answers);
void AskNotification(Answers& answers);
void AskProcesses(Answers& answers);
void AskProcessImage(Answers& answers);
void AskHandles(Answers& answers);
void AskEvents(Answers& answers);
void AskPool(Answers& answers);
void AskMemoryDescriptors(Answers& answers);
void AskStack(Answers& answers);
void AskProbe(Answers& answers);
void AskGenericTable(Answers& answers);
void AskSystemRoutines(Answers& answers);
void AskMemoryRoutines(Answers& answers);
void AskFilter(Answers& answers, PDRIVER_OBJECT driver);
}
