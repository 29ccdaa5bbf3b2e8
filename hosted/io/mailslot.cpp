#include "hosted/io/mailslot.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ob/object.h"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <new>

namespace hosted
{
struct MailslotReader::Body
{
    WideString Name; // below the device, "\OrvaneSandbox_Dbg"
    ULONG MostBytes = 0;

    std::mutex Mutex;
    bool Closed = false;
    std::deque<std::vector<UCHAR>> Messages;
};

// The open mailslots by name.
struct MailslotReader::Slots
{
    std::mutex Mutex;
    std::map<WideString, Body*, LessNoCase> Open;

    // Never destroyed: readers may be static objects.
    static Slots& Instance()
    {
        static Slots& slots = *new Slots;
        return slots;
    }
};

// The driver of "\Device\Mailslot". A file object's FsContext is the mailslot that it writes to, referenced.
struct MailslotDriver
{
    using Body = MailslotReader::Body;

    static void DeleteBody(void* body) { static_cast<Body*>(body)->~Body(); }

    static NTSTATUS Open(PFILE_OBJECT file)
    {
        auto& slots = MailslotReader::Slots::Instance();
        const std::lock_guard lock(slots.Mutex);
        const auto found = slots.Open.find(View(file->FileName));
        if (found == slots.Open.end())
        {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        ReferenceObject(found->second);
        file->FsContext = found->second;
        file->Flags |= FO_MAILSLOT;
        return STATUS_SUCCESS;
    }

    static NTSTATUS Write(PFILE_OBJECT file, const void* message, ULONG bytes)
    {
        auto* slot = static_cast<Body*>(file->FsContext);
        const std::lock_guard lock(slot->Mutex);
        if (slot->Closed)
        {
            return STATUS_FILE_FORCED_CLOSED;
        }
        if (slot->MostBytes != 0 && bytes > slot->MostBytes)
        {
            return STATUS_BUFFER_TOO_SMALL;
        }
        const auto* first = static_cast<const UCHAR*>(message);
        slot->Messages.emplace_back(first, first + bytes);
        return STATUS_SUCCESS;
    }

    static NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
    {
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = information;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }

    static NTSTATUS NTAPI DispatchCreate(PDEVICE_OBJECT, PIRP irp)
    {
        const NTSTATUS status = Open(IoGetCurrentIrpStackLocation(irp)->FileObject);
        return Complete(irp, status, FILE_OPENED);
    }

    static NTSTATUS NTAPI DispatchWrite(PDEVICE_OBJECT, PIRP irp)
    {
        const IO_STACK_LOCATION& stack = *IoGetCurrentIrpStackLocation(irp);
        const ULONG bytes = stack.Parameters.Write.Length;
        const NTSTATUS status = Write(stack.FileObject, irp->UserBuffer, bytes);
        return Complete(irp, status, NT_SUCCESS(status) ? bytes : 0);
    }

    static NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); }

    static NTSTATUS NTAPI DispatchClose(PDEVICE_OBJECT, PIRP irp)
    {
        DereferenceObject(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext);
        return Complete(irp, STATUS_SUCCESS);
    }

    static NTSTATUS NTAPI RefuseRequest(PDEVICE_OBJECT, PIRP irp)
    {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }

    // Part of the system itself, so no object that counts among the loaded drivers.
    static PDRIVER_OBJECT Driver()
    {
        static DRIVER_OBJECT driver{};
        std::ranges::fill(driver.MajorFunction, RefuseRequest);
        driver.MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
        driver.MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
        driver.MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
        driver.MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
        return &driver;
    }
};

namespace
{
constexpr ObjectType MailslotType = {"Mailslot", nullptr, MailslotDriver::DeleteBody};
constexpr WideView Directory = L"\\Device\\Mailslot";

PDEVICE_OBJECT mailslotDevice = nullptr;
}

void StartMailslots()
{
    UNICODE_STRING name = Counted(Directory);
    const NTSTATUS status =
        IoCreateDevice(MailslotDriver::Driver(), 0, &name, FILE_DEVICE_MAILSLOT, 0, FALSE, &mailslotDevice);
    if (!NT_SUCCESS(status))
    {
        BugCheck("MAILSLOTS_NOT_STARTED", "0x%08x", static_cast<unsigned>(status));
    }
    ClearFlag(mailslotDevice->Flags, DO_DEVICE_INITIALIZING);
}

void StopMailslots()
{
    IoDeleteDevice(mailslotDevice);
    mailslotDevice = nullptr;
}

NTSTATUS MailslotReader::Create(WideView path, ULONG mostBytes, std::unique_ptr<MailslotReader>* reader)
{
    reader->reset();
    const WideView name = path.substr(std::min(path.size(), Directory.size()));
    if (!EqualNoCase(path.substr(0, Directory.size()), Directory) || name.size() < 2 || name[0] != L'\\')
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    auto& slots = Slots::Instance();
    const std::lock_guard lock(slots.Mutex);
    if (slots.Open.contains(name))
    {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    auto* body = new (CreateObject(MailslotType, sizeof(Body))) Body;
    body->Name = name;
    body->MostBytes = mostBytes;
    slots.Open.emplace(body->Name, body);
    reader->reset(new MailslotReader(body));
    return STATUS_SUCCESS;
}

MailslotReader::~MailslotReader()
{
    Close();
    DereferenceObject(body_);
}

void MailslotReader::Close()
{
    auto& slots = Slots::Instance();
    const std::lock_guard lock(slots.Mutex);
    const std::lock_guard bodyLock(body_->Mutex);
    if (!body_->Closed)
    {
        body_->Closed = true;
        body_->Messages.clear();
        slots.Open.erase(body_->Name);
    }
}

std::optional<std::vector<UCHAR>> MailslotReader::Read()
{
    const std::lock_guard lock(body_->Mutex);
    if (body_->Messages.empty())
    {
        return std::nullopt;
    }
    std::vector<UCHAR> message = std::move(body_->Messages.front());
    body_->Messages.pop_front();
    return message;
}

std::optional<WideString> MailslotReader::ReadText()
{
    const auto message = Read();
    if (!message)
    {
        return std::nullopt;
    }
    if (message->size() % sizeof(WCHAR) != 0)
    {
        BugCheck("MAILSLOT_NOT_TEXT", "a message of %zu bytes", message->size());
    }
    WideString text(message->size() / sizeof(WCHAR), 0);
    __builtin_memcpy(text.data(), message->data(), message->size());
    text.resize(text.find_last_not_of(WCHAR{0}) + 1);
    return text;
}

size_t MailslotReader::Waiting() const
{
    const std::lock_guard lock(body_->Mutex);
    return body_->Messages.size();
}
}
