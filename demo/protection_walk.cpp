#include "demo/protection_walk.h"

#include "demo/report.h"

namespace demo
{
namespace
{
constexpr hosted::WideView Document = L"C:\\Documents\\letter.txt";
constexpr hosted::WideView DebugMailslot = L"\\Device\\mailslot\\OrvaneSandbox_Dbg";

void OpenDocument(const hosted::Program& program, const std::string& who, NTSTATUS wanted)
{
    const auto file = program.OpenForReading(Document);
    ExpectStatus(file.Status(), wanted, "the " + who + " opening the protected document");
    Say(NT_SUCCESS(wanted) ? "allowed" : "refused",
        "the " + who + " opening " + hosted::Narrow(Document) + ": status " + StatusText(file.Status()));
}

void AllowStranger(const Stage& stage)
{
    const hosted::Program& stranger = stage.Stranger();
    const hosted::ControlAnswer added = stage.Agent().AddFileProtection(stranger.ProcessId(), Document);
    ExpectStatus(added.Status, STATUS_SUCCESS, "protecting the document");
    Say("protected", hosted::Narrow(Document) + " is for process " + std::to_string(stranger.ProcessId()) +
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
        const std::string text = hosted::Narrow(*line);
        Say("dump", text.substr(0, text.find_last_not_of("\r\n") + 1));
        ++lines;
    }
    Expect(lines != 0, "the mailslot carried the dump");
}
}
