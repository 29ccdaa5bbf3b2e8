#include "live/processes/proc_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace hosted
{
namespace
{
constexpr uint64_t ExitingFlag = 0x00000004;
constexpr uint64_t KernelThreadFlag = 0x00200000;
// The kernel gives the first pid namespace this inode for ever.
constexpr std::string_view FirstPidNamespace = "pid:[4026531836]";
constexpr std::string_view DeletedSuffix = " (deleted)";

std::optional<std::string> ReadAll(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
    {
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    ssize_t count;
    while ((count = read(file, buffer, sizeof buffer)) > 0)
    {
        text.append(buffer, static_cast<size_t>(count));
    }
    close(file);
    return count == 0 ? std::optional(std::move(text)) : std::nullopt;
}

std::optional<std::string> ReadLink(const std::string& path)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length <= 0 || length == sizeof target)
    {
        return std::nullopt;
    }
    return std::string(target, static_cast<size_t>(length));
}

// "PID (NAME) S PPID ...", counted from 1 as in proc(5); the name may hold anything, brackets too.
std::optional<ProcStat> ParseStat(const std::string& text)
{
    constexpr int stateField = 3, parentField = 4, flagsField = 9, startField = 22, stackField = 28;
    const size_t nameEnd = text.rfind(") ");
    if (nameEnd == std::string::npos)
    {
        return std::nullopt;
    }
    ProcStat stat{};
    const char* at = text.c_str() + nameEnd + 2;
    stat.State = *at++;
    int field = stateField;
    while (field < stackField)
    {
        char* end;
        const uint64_t value = strtoull(at, &end, 10);
        if (end == at)
        {
            return std::nullopt;
        }
        at = end;
        ++field;
        switch (field)
        {
        case parentField:
            stat.Parent = static_cast<pid_t>(value);
            break;
        case flagsField:
            stat.KernelThread = (value & KernelThreadFlag) != 0;
            stat.Exiting = (value & ExitingFlag) != 0;
            break;
        case startField:
            stat.StartTicks = value;
            break;
        case stackField:
            stat.StackStart = value;
            break;
        default:
            break;
        }
    }
    return stat;
}

std::optional<ProcStat> ReadStat(const std::string& path)
{
    const auto text = ReadAll(path);
    return text.has_value() ? ParseStat(*text) : std::nullopt;
}
}

std::optional<ProcStat> ProcFiles::Process(pid_t pid) const
{
    return ReadStat(root_ + '/' + std::to_string(pid) + "/stat");
}

std::optional<ProcStat> ProcFiles::Thread(pid_t pid, pid_t tid) const
{
    return ReadStat(root_ + '/' + std::to_string(pid) + "/task/" + std::to_string(tid) + "/stat");
}

std::optional<pid_t> ProcFiles::ProcessOfThread(pid_t tid) const
{
    constexpr std::string_view label = "\nTgid:";
    const auto text = ReadAll(root_ + '/' + std::to_string(tid) + "/status");
    const size_t at = text.has_value() ? text->find(label) : std::string::npos;
    if (at == std::string::npos)
    {
        return std::nullopt;
    }
    const long pid = strtol(text->c_str() + at + label.size(), nullptr, 10);
    return pid > 0 ? std::optional(static_cast<pid_t>(pid)) : std::nullopt;
}

std::optional<ProcImage> ProcFiles::Image(pid_t pid) const
{
    std::string folder = root_ + '/' + std::to_string(pid);
    // The image itself, so that its path and its mount are those of one and the same file. This opens nothing in the
    // image's file system and asks it nothing.
    int image = open((folder + "/exe").c_str(), O_PATH | O_CLOEXEC);
    if (image < 0)
    {
        // The first thread may have exited; the others run the same image.
        const std::vector<pid_t> threads = LiveThreads(pid);
        if (threads.empty())
        {
            return std::nullopt;
        }
        folder += "/task/" + std::to_string(threads.front());
        image = open((folder + "/exe").c_str(), O_PATH | O_CLOEXEC);
    }
    if (image < 0)
    {
        return std::nullopt;
    }
    auto path = ReadLink("/proc/self/fd/" + std::to_string(image));
    struct statx file{};
    const int asked = statx(image, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID | STATX_NLINK, &file);
    close(image);
    if (!path.has_value() || asked != 0)
    {
        return std::nullopt;
    }
    // What the kernel adds to the path of a file without a name; a name may end so, too.
    if (path->ends_with(DeletedSuffix) && (file.stx_mask & STATX_NLINK) != 0 && file.stx_nlink == 0)
    {
        path->resize(path->size() - DeletedSuffix.size());
    }
    // In a user namespace of its own a program may replace what is said to be its image.
    const bool believed =
        (file.stx_mask & STATX_MNT_ID) != 0 && ReadLink(folder + "/ns/user") == ReadLink(root_ + "/self/ns/user");
    return ProcImage{std::move(*path), believed ? file.stx_mnt_id : 0};
}

// Read anew each time: ids of mounts that are gone are used again.
bool ProcFiles::IsMountHere(uint64_t mountId) const
{
    const auto mounts = ReadAll(root_ + "/self/mountinfo");
    const std::string wanted = std::to_string(mountId) + ' ';
    return mounts.has_value() && (mounts->starts_with(wanted) || mounts->find('\n' + wanted) != std::string::npos);
}

std::vector<pid_t> ProcFiles::Numbers(const std::string& folder) const
{
    std::vector<pid_t> numbers;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(
        opendir(folder.c_str()), [](DIR* open) { return open == nullptr ? 0 : closedir(open); });
    while (const dirent* entry = directory == nullptr ? nullptr : readdir(directory.get()))
    {
        char* end;
        const long number = strtol(entry->d_name, &end, 10);
        if (*end == '\0' && number > 0)
        {
            numbers.push_back(static_cast<pid_t>(number));
        }
    }
    return numbers;
}

std::vector<pid_t> ProcFiles::Processes() const
{
    return Numbers(root_);
}

std::vector<pid_t> ProcFiles::LiveThreads(pid_t pid) const
{
    std::vector<pid_t> threads = Numbers(root_ + '/' + std::to_string(pid) + "/task");
    std::erase_if(threads,
        [this, pid](pid_t tid)
        {
            const auto stat = Thread(pid, tid);
            return !stat.has_value() || stat->Exited();
        });
    return threads;
}

bool ProcFiles::InFirstPidNamespace() const
{
    return ReadLink(root_ + "/self/ns/pid") == FirstPidNamespace;
}
}
