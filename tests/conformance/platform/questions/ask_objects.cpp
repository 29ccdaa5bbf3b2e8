// Handles, references, events and mutexes.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
void AskReference(Answers& answers, const char* label, HANDLE handle, POBJECT_TYPE type, KPROCESSOR_MODE mode)
{
    PVOID object = nullptr;
    const NTSTATUS status = ObReferenceObjectByHandle(handle, READ_CONTROL, type, mode, &object, nullptr);
    answers.Line("ObReferenceObjectByHandle ", label, ": ", Status{status}, " ", Address{object});
    if (NT_SUCCESS(status))
    {
        ObDereferenceObject(object);
    }
}

void AskEvent(Answers& answers, const char* label, EVENT_TYPE type, bool state)
{
    KEVENT event;
    Fill(&event, sizeof(event));
    KeInitializeEvent(&event, type, state);
    answers.Line("KeInitializeEvent ", label, ": type ", static_cast<int>(event.Header.Type), " words ",
        static_cast<int>(event.Header.Size), " state ", event.Header.SignalState, " nobody waits ",
        event.Header.WaitListHead.Flink == &event.Header.WaitListHead &&
            event.Header.WaitListHead.Blink == &event.Header.WaitListHead);
    answers.Line("KeSetEvent ", label, ": ", KeSetEvent(&event, 0, FALSE));
    answers.Line("KeSetEvent ", label, " again: ", KeSetEvent(&event, 0, FALSE), " state ", event.Header.SignalState);
    answers.Line("KeWaitForSingleObject ", label, ": ",
        Status{KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr)}, " state ",
        event.Header.SignalState);
}
}

void AskHandles(Answers& answers)
{
    answers.Line("ZwClose of a bad handle: ", Status{ZwClose(BadHandle)});
    answers.Line("ZwClose of no handle: ", Status{ZwClose(nullptr)});
    Name name(QUESTION_KEY);
    OpenAttributes attributes(&name);
    attributes.Attributes = OBJ_CASE_INSENSITIVE;
    HANDLE key = nullptr;
    if (!NT_SUCCESS(ZwOpenKey(&key, KEY_READ, &attributes)))
    {
        return;
    }
    AskReference(answers, "of a key as an event", key, *ExEventObjectType, KernelMode);
    AskReference(answers, "of a key as an event for a program", key, *ExEventObjectType, UserMode);
    AskReference(answers, "of a bad handle", BadHandle, *ExEventObjectType, KernelMode);
    AskReference(answers, "of a bad handle for a program", BadHandle, *ExEventObjectType, UserMode);
    AskReference(answers, "of no handle", nullptr, *ExEventObjectType, KernelMode);
    answers.Line("ZwClose of a handle of the caller's own: ", Status{ZwClose(key)});
    answers.Line("ZwClose of the same again: ", Status{ZwClose(key)});
    AskReference(answers, "of a closed handle", key, *ExEventObjectType, KernelMode);
    Name file(QUESTION_FOLDER L"\\short.txt");
    OpenAttributes fileAttributes(&file);
    HANDLE opened = nullptr;
    IO_STATUS_BLOCK result;
    if (NT_SUCCESS(ZwOpenFile(&opened, FILE_READ_DATA | SYNCHRONIZE, &fileAttributes, &result, FILE_SHARE_READ,
            FILE_SYNCHRONOUS_IO_NONALERT)))
    {
        AskReference(answers, "of a file as an event", opened, *ExEventObjectType, KernelMode);
        AskReference(answers, "of a file as anything", opened, nullptr, KernelMode);
        ZwClose(opened);
    }
}

void AskEvents(Answers& answers)
{
    AskEvent(answers, "notification", NotificationEvent, false);
    AskEvent(answers, "notification set", NotificationEvent, true);
    AskEvent(answers, "synchronization", SynchronizationEvent, false);
    AskEvent(answers, "synchronization set", SynchronizationEvent, true);
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    const KIRQL before = KeGetCurrentIrql();
    ExAcquireFastMutex(&mutex);
    answers.Line("ExAcquireFastMutex: count ", mutex.Count, " owner ", Address{mutex.Owner}, " level ",
        static_cast<int>(KeGetCurrentIrql()) - before);
    ExReleaseFastMutex(&mutex);
    answers.Line("ExReleaseFastMutex: count ", mutex.Count, " owner ", Address{mutex.Owner}, " contention ",
        mutex.Contention, " level ", static_cast<int>(KeGetCurrentIrql()) - before);
    ExAcquireFastMutex(&mutex);
    ExReleaseFastMutex(&mutex);
    answers.Line("ExReleaseFastMutex again: count ", mutex.Count);
}
}
