#include "hosted/road/journey.h"

#include "hosted/cc/cache.h"
#include "hosted/machine/native_image.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>

namespace road
{
namespace
{
constexpr size_t PieceBytes = 1 << 20;
constexpr ULONG AllLevels = 0x7f;

void Say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string StatusText(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

void Expect(bool held, const std::string& what)
{
    if (!held)
    {
        throw StepFailed(what);
    }
}

void ExpectStatus(NTSTATUS status, NTSTATUS wanted, const std::string& what)
{
    Expect(status == wanted, what + ": status " + StatusText(status) + ", wanted " + StatusText(wanted));
}

class Stopwatch
{
public:
    std::string Text() const
    {
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start_;
        char text[32];
        std::snprintf(text, sizeof(text), "%.2f s", passed.count());
        return text;
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Names that Windows refuses get underscores, and no two files share one.
std::string SandboxName(const std::filesystem::path& file, std::set<std::string>* taken)
{
    std::string name = file.filename().string();
    for (char& character : name)
    {
        const bool refused = static_cast<unsigned char>(character) < 32 ||
                             std::string_view("<>:\"/\\|?*").find(character) != std::string_view::npos;
        character = refused ? '_' : character;
    }
    std::string unique = name;
    for (int number = 2; !taken->insert(unique).second; ++number)
    {
        unique = std::to_string(number) + "-" + name;
    }
    return unique;
}

// The next piece of a file; empty at its end.
std::string NextPiece(std::ifstream& stream)
{
    std::string piece(PieceBytes, '\0');
    stream.read(piece.data(), static_cast<std::streamsize>(piece.size()));
    piece.resize(static_cast<size_t>(stream.gcount()));
    return piece;
}

struct Traveller
{
    std::filesystem::path Source;
    std::string Name;
    host::WideString Path;
    std::uintmax_t Size = 0;
    std::string Hash;
};

class Journey
{
public:
    explicit Journey(const Plan& plan) : plan_(plan), key_(RandomKey()), machine_(Options(plan)) {}

    void Run()
    {
        Prepare();
        std::set<std::string> names;
        for (const auto& file : plan_.Files)
        {
            const std::string name = SandboxName(file, &names);
            Traveller traveller{file, name, L"C:\\Sandbox\\" + host::Widen(name), 0, {}};
            Store(&traveller);
            CheckDisk(traveller);
            RefuseStranger(traveller);
            // Otherwise the page cache could answer the reads.
            machine_.Remount(L"C:");
            ReadBack(traveller);
            ReportLog();
        }
        Leave();
    }

private:
    static host::MachineOptions Options(const Plan& plan)
    {
        host::MachineOptions options;
        options.Volumes[0].Directory = plan.Volume.string();
        return options;
    }

    void Prepare()
    {
        machine_.Registry().SetString(
            host::Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        ExpectStatus(machine_.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS, "making the sandbox folder");
        ExpectStatus(machine_.LoadDriver(host::Image::Native), STATUS_SUCCESS, "loading the driver");
        Say("loaded     the driver, sandbox folder C:\\Sandbox");

        agent_.emplace(machine_.StartProcess(L"C:\\Agent\\agent.exe"));
        event_.emplace(agent_->CreateEvent());
        ExpectStatus(agent_->StartLogging(*event_, AllLevels), STATUS_SUCCESS, "starting the log");
        const std::string bytes(key_.Bytes.begin(), key_.Bytes.end());
        ExpectStatus(agent_->SetCryptKey(bytes, key_.Mask), STATUS_SUCCESS, "setting the key");
        Say("key        set by the agent: 256 bits and a mask byte, status 0x00000000");
        const host::ControlAnswer added = agent_->AddProcess(L"C:\\Apps\\Editor.exe");
        ExpectStatus(added.Status, STATUS_SUCCESS, "adding the process setting");
        ExpectStatus(agent_->StartDriver(), STATUS_SUCCESS, "the start request");
        Say("setting    C:\\Apps\\Editor.exe is to be sandboxed, setting id " + std::to_string(added.Value));

        editor_.emplace(machine_.StartProcess(L"C:\\Apps\\Editor.exe"));
        stranger_.emplace(machine_.StartProcess(L"C:\\Apps\\Stranger.exe"));
        Expect(static_cast<bool>(agent_->IsUnderSandbox(editor_->ProcessId())), "the editor is under the sandbox");
        Expect(agent_->IsUnderSandbox(stranger_->ProcessId()) == host::ControlAnswer{STATUS_SUCCESS, 0},
               "the stranger is not under the sandbox");
        Say("processes  editor " + std::to_string(editor_->ProcessId()) + " is under the sandbox, stranger " +
            std::to_string(stranger_->ProcessId()) + " is not");
        ReportLog();
    }

    void Store(Traveller* traveller)
    {
        std::ifstream source(traveller->Source, std::ios::binary);
        Expect(source.is_open(), "opening " + traveller->Source.string());
        host::ResetPeakCachedBytes();
        const Stopwatch watch;
        auto file = editor_->Create(traveller->Path);
        ExpectStatus(file.Status(), STATUS_SUCCESS, "the editor creating the file");
        Sha256 hash;
        for (std::string piece = NextPiece(source); !piece.empty(); piece = NextPiece(source))
        {
            hash.Add(piece);
            ExpectStatus(file.Write(piece, static_cast<LONGLONG>(traveller->Size)), STATUS_SUCCESS, "a write");
            traveller->Size += piece.size();
        }
        ExpectStatus(file.Flush(), STATUS_SUCCESS, "the flush");
        ExpectStatus(file.Close(), STATUS_SUCCESS, "the close");
        traveller->Hash = hash.Hex();
        Say("stored     " + traveller->Name + ": " + std::to_string(traveller->Size) + " bytes in " + watch.Text() +
            ", sha256 " + traveller->Hash + ", at most " + std::to_string(host::PeakCachedBytes() >> 10) +
            " KiB of page cache");
    }

    void CheckDisk(const Traveller& traveller)
    {
        std::ifstream source(traveller.Source, std::ios::binary);
        std::ifstream disk(plan_.Volume / "Sandbox" / traveller.Name, std::ios::binary);
        Expect(disk.is_open(), "opening the file on the disk");
        ExpectedDisk expected(key_);
        Sha256 hash;
        for (bool more = true; more;)
        {
            const std::string piece = NextPiece(source);
            more = !piece.empty();
            const std::string wanted = more ? expected.Encipher(piece) : expected.Finish();
            std::string found(wanted.size(), '\0');
            disk.read(found.data(), static_cast<std::streamsize>(found.size()));
            Expect(static_cast<size_t>(disk.gcount()) == wanted.size() && found == wanted,
                   "the disk holds what AES makes of the file");
            hash.Add(found);
        }
        Expect(disk.peek() == std::ifstream::traits_type::eof(), "nothing stands behind the file's end on the disk");
        const std::string hex = hash.Hex();
        Expect(traveller.Size < 16 || hex != traveller.Hash, "the disk does not hold the plain file");
        Say("disk       " + traveller.Name + ": the same size, every block as AES-256 makes it, sha256 " + hex);
    }

    void RefuseStranger(const Traveller& traveller)
    {
        const auto file = stranger_->OpenForReading(traveller.Path);
        ExpectStatus(file.Status(), STATUS_ACCESS_DENIED, "the stranger opening the file");
        Say("refused    the stranger opening " + traveller.Name + ": status " + StatusText(file.Status()));
    }

    void ReadBack(const Traveller& traveller)
    {
        const Stopwatch watch;
        auto file = editor_->OpenForReading(traveller.Path);
        ExpectStatus(file.Status(), STATUS_SUCCESS, "the editor opening the file");
        Sha256 hash;
        std::uintmax_t size = 0;
        for (std::string piece = file.Read(0, PieceBytes); !piece.empty();
             piece = file.Read(static_cast<LONGLONG>(size), PieceBytes))
        {
            hash.Add(piece);
            size += piece.size();
        }
        Expect(size == traveller.Size && hash.Hex() == traveller.Hash, "what is read back is what was stored");
        ExpectStatus(file.Close(), STATUS_SUCCESS, "the close");
        Say("read back  " + traveller.Name + " after a remount: " + std::to_string(size) + " bytes in " + watch.Text() +
            ", identical");
    }

    void ReportLog()
    {
        const std::vector<host::LogRecord> records = agent_->DrainLog();
        Expect(!records.empty(), "the driver reported what it did");
        for (const host::LogRecord& record : records)
        {
            char level[8];
            std::snprintf(level, sizeof(level), "0x%02X", static_cast<unsigned>(record.Level));
            Say("log        " + std::string(level) + " " + record.ProcessName + " (" +
                std::to_string(record.ProcessId) + ") " + record.Message);
        }
    }

    void Leave()
    {
        ExpectStatus(agent_->StopLogging(), STATUS_SUCCESS, "stopping the log");
        ExpectStatus(agent_->StopDriver(), STATUS_SUCCESS, "the stop request");
        agent_->Exit();
        editor_->Exit();
        stranger_->Exit();
        event_.reset();
        ExpectStatus(machine_.UnloadDriver(), STATUS_SUCCESS, "unloading the driver");
        machine_.Shutdown();
        const std::string leaks = machine_.Leaks();
        Expect(leaks.empty(), "nothing is left over: " + leaks);
        Say("unloaded   nothing left over: no pool, context, reference, handle or MDL");
    }

    const Plan& plan_;
    const Key key_;
    host::Machine machine_;
    std::optional<host::Program> agent_;
    std::optional<host::Program> editor_;
    std::optional<host::Program> stranger_;
    std::optional<host::ProgramEvent> event_;
};
}

void Travel(const Plan& plan)
{
    Journey(plan).Run();
}
}
