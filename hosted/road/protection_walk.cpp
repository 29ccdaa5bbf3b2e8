#include "hosted/road/protection_walk.h"

#include "hosted/road/report.h"

namespace road
{
namespace
{
constexpr host::WideView Document = L"C:\\Documents\\letter.txt";
constexpr host::WideView DebugMailslot = L"\\Device\\mailslot\\OrvaneSandbox_Dbg";

void OpenDocument(const host::Program& program, const std::string& who, NTSTATUS wanted)
{
    const auto file = program.OpenForReading(Document);
    ExpectStatus(file.Status(), wanted, "the " + who + " opening the protected document");
    Say(NT_SUCCESS(wanted) ? "allowed" : "refused",
        "the " + who + " opening " + host::Narrow(Document) + ": status " + StatusText(file.Status()));
}

void AllowStranger(const Stage& stage)
{
    const host::Program& stranger = stage.Stranger();
    const host::ControlAnswer added = stage.Agent().AddFileProtection(stranger.ProcessId(), Document);
    ExpectStatus(added.Status, STATUS_SUCCESS, "protecting the document");
    Say("protected", host::Narrow(Document) + " is for process " + std::to_string(stranger.ProcessId()) +
                         " alone, setting id " + std::to_string(added.Value));
}
}

void ProtectDocument(Stage& stage)
{
    ExpectStatus(stage.Computer().PutOnDisk(Document, "Dear sandbox,\n"), STATUS_SUCCESS, "making the document");
    OpenDocument(stage.Stranger(), "stranger", STATUS_SUCCESS);
    OpenDocument(stage.Editor(), "editor", STATUS_SUCCESS);
    AllowStranger(stage);
    OpenDocument(stage.Stranger(), "stranger", STATUS_SUCCESS);
    OpenDocument(stage.Editor(), "editor", STATUS_ACCESS_DENIED);
    stage.ReportLog();
}

void FindDocumentProtected(Stage& stage)
{
    OpenDocument(stage.Stranger(), "stranger", STATUS_ACCESS_DENIED);
    OpenDocument(stage.Editor(), "editor", STATUS_ACCESS_DENIED);
    AllowStranger(stage);
    OpenDocument(stage.Stranger(), "stranger", STATUS_SUCCESS);
    stage.ReportLog();
}

void ReadDump(Stage& stage)
{
    const auto reader = stage.Computer().CreateMailslot(DebugMailslot);
    ExpectStatus(stage.Agent().OutputCurrentParam(), STATUS_SUCCESS, "asking for the dump");
    size_t lines = 0;
    while (const auto line = reader->ReadText())
    {
        const std::string text = host::Narrow(*line);
        Say("dump", text.substr(0, text.find_last_not_of("\r\n") + 1));
        ++lines;
    }
    Expect(lines != 0, "the mailslot carried the dump");
}
}
