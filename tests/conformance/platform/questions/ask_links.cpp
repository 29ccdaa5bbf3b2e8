// Symbolic links and devices of the name space.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
#define QUESTION_LINK L"\\??\\PlatformQuestionsLink"
#define QUESTION_TARGET L"\\Device\\PlatformQuestionsTarget"
#define QUESTION_DEVICE L"\\Device\\PlatformQuestionsDevice"

// The headers of some DDKs leave the alignment out, by which the structure ends.
constexpr int DeviceBytes = 0x150;
constexpr ULONG TargetBytes = sizeof(QUESTION_TARGET) - sizeof(WCHAR);

void AskOpen(Answers& answers, const char* label, OBJECT_ATTRIBUTES& attributes)
{
    HANDLE link = NoHandle;
    const NTSTATUS status = ZwOpenSymbolicLinkObject(&link, GENERIC_READ, &attributes);
    answers.Line(
        "ZwOpenSymbolicLinkObject ", label, ": ", Status{status}, " handle ", link != NoHandle && link != nullptr);
    if (NT_SUCCESS(status))
    {
        ZwClose(link);
    }
}

void AskOpen(Answers& answers, const char* label, Name name, HANDLE root = nullptr)
{
    OpenAttributes attributes(&name, root);
    AskOpen(answers, label, attributes);
}

void AskTarget(Answers& answers, HANDLE link, bool withLength)
{
    for (USHORT room = 0; room <= TargetBytes + 4; ++room)
    {
        WCHAR buffer[TargetBytes];
        Fill(buffer, sizeof(buffer));
        UNICODE_STRING target = {0x55, room, buffer};
        ULONG length = 0xA5A5A5A5;
        const NTSTATUS status = ZwQuerySymbolicLinkObject(link, &target, withLength ? &length : nullptr);
        answers.Line("ZwQuerySymbolicLinkObject with length ", withLength, " room ", room, ": ", Status{status}, " ",
            target.Length, " of ", target.MaximumLength, " returned ", Hex{length}, " ",
            Written{buffer, sizeof(buffer)});
    }
}

void AskQuery(Answers& answers)
{
    Name name(QUESTION_LINK);
    OpenAttributes attributes(&name);
    HANDLE link = nullptr;
    if (!NT_SUCCESS(ZwOpenSymbolicLinkObject(&link, GENERIC_READ, &attributes)))
    {
        answers.Line("the link of the questions: missing");
        return;
    }
    AskTarget(answers, link, true);
    AskTarget(answers, link, false);
    UNICODE_STRING none = {};
    ULONG length = 0;
    const NTSTATUS status = ZwQuerySymbolicLinkObject(link, &none, &length);
    answers.Line("ZwQuerySymbolicLinkObject without a buffer: ", Status{status}, " ", length);
    ZwClose(link);
    WCHAR buffer[8];
    UNICODE_STRING target = {0, sizeof(buffer), buffer};
    answers.Line(
        "ZwQuerySymbolicLinkObject by a bad handle: ", Status{ZwQuerySymbolicLinkObject(BadHandle, &target, &length)});
    Name keyName(QUESTION_KEY);
    OpenAttributes keyAttributes(&keyName);
    HANDLE key = nullptr;
    ZwOpenKey(&key, KEY_READ, &keyAttributes);
    answers.Line("ZwQuerySymbolicLinkObject of a key: ", Status{ZwQuerySymbolicLinkObject(key, &target, &length)});
    ZwClose(key);
}

void AskDevice(Answers& answers, const char* label, PDEVICE_OBJECT device)
{
    answers.Line("IoCreateDevice ", label, " fields: type ", device->Type, " kind ", Hex{device->DeviceType}, " flags ",
        Hex{device->Flags}, " stack ", static_cast<int>(device->StackSize), " characteristics ",
        Hex{device->Characteristics}, " references ", device->ReferenceCount, " alignment ",
        device->AlignmentRequirement);
    answers.Line("IoCreateDevice ", label, " extension: ", Address{device->DeviceExtension}, " bytes ",
        device->Size - DeviceBytes);
}

void AskCreateDevice(Answers& answers, PDRIVER_OBJECT driver)
{
    Name name(QUESTION_DEVICE);
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    answers.Line("IoCreateDevice named: ", Status{status}, " ", Address{device});
    if (!NT_SUCCESS(status))
    {
        return;
    }
    AskDevice(answers, "named", device);
    answers.Line("IoCreateDevice named is the driver's: ", driver->DeviceObject == device, " ",
        device->DriverObject == driver, " ", Address{device->NextDevice});
    PDEVICE_OBJECT second = nullptr;
    status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second);
    answers.Line("IoCreateDevice of a name taken: ", Status{status}, " ", Address{second});
    PDEVICE_OBJECT plain = nullptr;
    status = IoCreateDevice(driver, 40, nullptr, FILE_DEVICE_DISK, 0, TRUE, &plain);
    answers.Line("IoCreateDevice without a name: ", Status{status});
    if (NT_SUCCESS(status))
    {
        AskDevice(answers, "without a name", plain);
        answers.Line("IoCreateDevice without a name is the driver's: ", driver->DeviceObject == plain, " ",
            plain->NextDevice == device);
        bool zero = true;
        for (int index = 0; index < 40; ++index)
        {
            zero = zero && static_cast<UCHAR*>(plain->DeviceExtension)[index] == 0;
        }
        answers.Line("IoCreateDevice extension is zero: ", zero);
        IoDeleteDevice(plain);
        answers.Line("IoDeleteDevice leaves the other: ", driver->DeviceObject == device);
    }
    AskOpen(answers, "of a device", Name(QUESTION_DEVICE));
    AskOpen(answers, "below a device", Name(QUESTION_DEVICE L"\\below"));
    IoDeleteDevice(device);
    answers.Line("IoDeleteDevice leaves none: ", driver->DeviceObject == nullptr);
    device = nullptr;
    status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    answers.Line("IoCreateDevice of a name freed: ", Status{status});
    if (NT_SUCCESS(status))
    {
        IoDeleteDevice(device);
    }
}
}

void AskSymbolicLinks(Answers& answers)
{
    Name name(QUESTION_LINK);
    Name target(QUESTION_TARGET);
    answers.Line("IoDeleteSymbolicLink missing: ", Status{IoDeleteSymbolicLink(&name)});
    AskOpen(answers, "missing", Name(QUESTION_LINK));
    answers.Line("IoCreateSymbolicLink: ", Status{IoCreateSymbolicLink(&name, &target)});
    answers.Line("IoCreateSymbolicLink of a name taken: ", Status{IoCreateSymbolicLink(&name, &target)});
    Name alias(L"\\DosDevices\\PlatformQuestionsLink");
    answers.Line("IoCreateSymbolicLink of a name taken, by its other directory: ",
        Status{IoCreateSymbolicLink(&alias, &target)});
    AskOpen(answers, "existing", Name(QUESTION_LINK));
    AskOpen(answers, "by other case", Name(L"\\??\\platformquestionsLINK"));
    AskOpen(answers, "by its other directory", Name(L"\\DosDevices\\PlatformQuestionsLink"));
    AskOpen(answers, "by its global directory", Name(L"\\GLOBAL??\\PlatformQuestionsLink"));
    AskOpen(answers, "below a link", Name(QUESTION_LINK L"\\below"));
    AskOpen(answers, "of a directory", Name(L"\\Device"));
    AskOpen(answers, "in a missing directory", Name(L"\\Nowhere\\Link"));
    AskOpen(answers, "relative without a root", Name(L"Link"));
    AskOpen(answers, "without a name", Name(L""));
    AskOpen(answers, "by a bad root", Name(L"Link"), BadHandle);
    AskOpen(answers, "drive", Name(L"\\??\\C:"));
    AskOpen(answers, "drive by its other directory", Name(L"\\DosDevices\\c:"));
    AskOpen(answers, "missing drive", Name(L"\\??\\Q:"));
    OpenAttributes attributes(&name);
    attributes.Length -= 1;
    AskOpen(answers, "with attributes of another length", attributes);
    AskQuery(answers);
    answers.Line("IoDeleteSymbolicLink: ", Status{IoDeleteSymbolicLink(&name)});
    AskOpen(answers, "deleted", Name(QUESTION_LINK));
    answers.Line("IoDeleteSymbolicLink again: ", Status{IoDeleteSymbolicLink(&name)});
    UNICODE_STRING nothing = {0, 0, nullptr};
    const NTSTATUS status = IoCreateSymbolicLink(&name, &nothing);
    answers.Line("IoCreateSymbolicLink to nothing: ", Status{status});
    if (NT_SUCCESS(status))
    {
        IoDeleteSymbolicLink(&name);
    }
    Name relative(L"PlatformQuestionsLink");
    answers.Line("IoCreateSymbolicLink relative: ", Status{IoCreateSymbolicLink(&relative, &target)});
}

void AskDevices(Answers& answers, PDRIVER_OBJECT driver)
{
    AskCreateDevice(answers, driver);
}
}
