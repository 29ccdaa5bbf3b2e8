#include "hosted/fs/store/directory_index.h"

#include <cinttypes>
#include <fstream>
#include <sstream>

namespace hosted
{
namespace
{
constexpr const char* FirstLine = "tarnveil-volume 1";

// Names hold no control characters, so a tab ends a field and a line feed a record; the name comes last.
std::string Line(const StoredNode& node)
{
    std::ostringstream line;
    line << "N\t" << node.Id << '\t' << node.ParentId << '\t' << node.Directory << '\t' << node.Attributes << '\t'
         << node.CreationTime << '\t' << node.LastAccessTime << '\t' << node.LastWriteTime << '\t' << node.ChangeTime
         << '\t' << Narrow(node.ShortName) << '\t' << Narrow(node.Name) << '\n';
    return line.str();
}

bool ParseNode(std::istringstream& line, StoredNode* node)
{
    std::string shortName;
    std::string name;
    line >> node->Id >> node->ParentId >> node->Directory >> node->Attributes >> node->CreationTime >>
        node->LastAccessTime >> node->LastWriteTime >> node->ChangeTime;
    if (!line || line.get() != '\t' || !std::getline(line, shortName, '\t'))
    {
        return false;
    }
    std::getline(line, name);
    node->ShortName = Widen(shortName);
    node->Name = Widen(name);
    return true;
}
}

DirectoryIndex::DirectoryIndex(const std::string& folder) : folder_(folder) {}

DirectoryIndex::~DirectoryIndex()
{
    if (log_ != nullptr)
    {
        std::fclose(log_);
    }
}

std::map<ULONGLONG, StoredNode> DirectoryIndex::Records()
{
    std::map<ULONGLONG, StoredNode> records;
    std::ifstream file(folder_ + "/" + FileName);
    std::string text;
    if (!std::getline(file, text) || text != FirstLine)
    {
        return records;
    }
    // A line without its line feed was cut off by the end of the run that wrote it.
    while (std::getline(file, text) && !file.eof())
    {
        std::istringstream line(text);
        char kind = 0;
        StoredNode node;
        line >> kind;
        if (kind == 'N' && ParseNode(line, &node))
        {
            records[node.Id] = node;
        }
        else if (kind == 'D' && line >> node.Id)
        {
            records.erase(node.Id);
        }
    }
    return records;
}

void DirectoryIndex::Put(const StoredNode& node)
{
    if (log_ != nullptr)
    {
        std::fputs(Line(node).c_str(), log_);
        std::fflush(log_);
    }
}

void DirectoryIndex::Remove(ULONGLONG id)
{
    if (log_ != nullptr)
    {
        std::fprintf(log_, "D\t%" PRIu64 "\n", static_cast<uint64_t>(id));
        std::fflush(log_);
    }
}

void DirectoryIndex::Rewrite(const std::vector<StoredNode>& nodes)
{
    // The folder may be read-only; then the volume works all the same, and forgets.
    const std::string fresh = folder_ + "/" + NewFileName;
    {
        std::ofstream file(fresh, std::ios::trunc);
        file << FirstLine << '\n';
        for (const StoredNode& node : nodes)
        {
            file << Line(node);
        }
        if (!file.flush())
        {
            return;
        }
    }
    const std::string path = folder_ + "/" + FileName;
    if (std::rename(fresh.c_str(), path.c_str()) == 0)
    {
        if (log_ != nullptr)
        {
            std::fclose(log_);
        }
        log_ = std::fopen(path.c_str(), "ae");
    }
}
}
