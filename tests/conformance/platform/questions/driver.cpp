// A driver that asks the platform all its questions while it loads, writes the answers to a file and does not stay.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
NTSTATUS AskAll(Answers& answers, PDRIVER_OBJECT driver)
{
    using Question = void (*)(Answers&);
    const Question all[] = {AskUpcase, AskHash, AskCountedStrings, AskFormatting, AskTime, AskVersion, AskOpenKey,
        AskQueryValue, AskSetValue, AskSymbolicLinks, AskOpenFile, AskWriteFile, AskQueryDirectory, AskProcesses,
        AskProcessImage, AskHandles, AskEvents, AskPool, AskMemoryDescriptors, AskStack, AskProbe, AskGenericTable,
        AskSystemRoutines, AskMemoryRoutines};
    for (const Question question : all)
    {
        question(answers);
        // What was answered must not be lost when the next question brings the system down.
        answers.Flush();
    }
    AskDevices(answers, driver);
    AskFilter(answers, driver);
    AskDebugPrint();
    answers.Line("the end: reached");
    answers.Flush();
    return answers.WriteStatus();
}
}
}

// Its success is to be refused: STATUS_CANCELLED, so that nothing stays loaded. Anything else is a failure.
extern "C" NTSTATUS NTAPI PlatformQuestions(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    questions::Name name(L"\\??\\C:\\answers.txt");
    questions::OpenAttributes attributes(&name);
    IO_STATUS_BLOCK result;
    HANDLE file = nullptr;
    NTSTATUS status = ZwOpenFile(&file, FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &result, FILE_SHARE_READ,
        FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    {
        questions::Answers answers(file);
        status = questions::AskAll(answers, driver);
    }
    ZwClose(file);
    return NT_SUCCESS(status) ? STATUS_CANCELLED : status;
}
