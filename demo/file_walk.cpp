#include "demo/file_walk.h"

#include "hosted/cc/cache.h"
#include "demo/report.h"

#include <fstream>

namespace demo
{
namespace
{
constexpr size_t PieceBytes = 1 << 20;

// Names on the volume differ by more than case.
hosted::WideString Upcased(const std::string& name)
{
    hosted::WideString text = hosted::Widen(name);
    for (WCHAR& character : text)
    {
        character = RtlUpcaseUnicodeChar(character);
    }
    return text;
}

// Names that Windows refuses get underscores, and no two files share one.
std::string SandboxName(const std::filesystem::path& file, std::set<hosted::WideString>* taken)
{
    std::string name = file.filename().string();
    for (char& character : name)
    {
        const bool refused = static_cast<unsigned char>(character) < 32 ||
                             std::string_view("<>:\"/\\|?*").find(character) != std::string_view::npos;
        character = refused ? '_' : character;
    }
    std::string unique = name;
    for (int number = 2; !taken->insert(Upcased(unique)).second; ++number)
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

}

FileWalk::FileWalk(Stage& stage, const std::filesystem::path& disk, const Key& key)
    : stage_(stage), disk_(disk), key_(key)
{
}

void FileWalk::Take(const std::filesystem::path& file)
{
    const std::string name = SandboxName(file, &names_);
    Traveller traveller{file, name, L"C:\\Sandbox\\" + hosted::Widen(name), 0, {}};
    Store(&traveller);
    CheckDisk(traveller);
    RefuseStranger(traveller);
    // Otherwise the page cache could answer the reads.
    stage_.Computer().Remount(L"C:");
    ReadBack(traveller);
    stage_.ReportLog();
}

void FileWalk::Store(Traveller* traveller) const
{
    std::ifstream source(traveller->Source, std::ios::binary);
    Expect(source.is_open(), "opening " + traveller->Source.string());
    hosted::ResetPeakCachedBytes();
    const Stopwatch watch;
    auto file = stage_.Editor().Create(traveller->Path);
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
    Say("stored", traveller->Name + ": " + std::to_string(traveller->Size) + " bytes in " + watch.Text() + ", sha256 " +
                      traveller->Hash + ", at most " + std::to_string(hosted::PeakCachedBytes() >> 10) +
                      " KiB of page cache");
}

void FileWalk::CheckDisk(const Traveller& traveller) const
{
    std::ifstream source(traveller.Source, std::ios::binary);
    std::ifstream disk(disk_ / "Sandbox" / traveller.Name, std::ios::binary);
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
    Say("disk", traveller.Name + ": the same size, every block as AES-256 makes it, sha256 " + hex);
}

void FileWalk::RefuseStranger(const Traveller& traveller) const
{
    const auto file = stage_.Stranger().OpenForReading(traveller.Path);
    ExpectStatus(file.Status(), STATUS_ACCESS_DENIED, "the stranger opening the file");
    Say("refused", "the stranger opening " + traveller.Name + ": status " + StatusText(file.Status()));
}

void FileWalk::ReadBack(const Traveller& traveller) const
{
    const Stopwatch watch;
    auto file = stage_.Editor().OpenForReading(traveller.Path);
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
    Say("read back",
        traveller.Name + " after a remount: " + std::to_string(size) + " bytes in " + watch.Text() + ", identical");
}
}
