#include "live/control/whole_file.h"

#include "common/descriptor.h"
#include "live/control/socket_path.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace hosted
{
using common::Descriptor;

namespace
{
constexpr off_t MostBytes = 64 << 20;
// Beside the file, one name: what a crash left there is replaced the next time.
constexpr const char* NewSuffix = ".new";

[[noreturn]] void Fail(const std::string& path, const std::string& why)
{
    throw std::runtime_error(path + ": " + why);
}

[[noreturn]] void FailWithError(const std::string& path)
{
    Fail(path, std::generic_category().message(errno));
}

std::optional<std::string> RealPath(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), std::free);
    return resolved ? std::optional<std::string>(resolved.get()) : std::nullopt;
}

void Sync(const Descriptor& file, const std::string& path)
{
    if (fsync(file.Get()) != 0)
    {
        FailWithError(path);
    }
}

void WriteAll(const Descriptor& file, const std::string& path, std::string_view bytes)
{
    while (!bytes.empty())
    {
        const ssize_t count = write(file.Get(), bytes.data(), bytes.size());
        if (count >= 0)
        {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        else if (errno != EINTR)
        {
            FailWithError(path);
        }
    }
}

// Mode and owner of the file that is to be replaced.
void TakeOver(const Descriptor& file, const std::string& path, const std::string& from)
{
    struct stat info = {};
    if (stat(from.c_str(), &info) != 0)
    {
        return;
    }
    // Before the mode, which a change of owner would cut. Only root can give a file away, and need not succeed.
    if (fchown(file.Get(), info.st_uid, info.st_gid) != 0 && errno != EPERM)
    {
        FailWithError(path);
    }
    if (fchmod(file.Get(), info.st_mode & ALLPERMS) != 0)
    {
        FailWithError(path);
    }
}
}

std::string ResolveFile(const std::string& path)
{
    if (const std::optional<std::string> resolved = RealPath(path))
    {
        return *resolved;
    }
    if (errno != ENOENT)
    {
        FailWithError(path);
    }
    const std::optional<std::string> folder = RealPath(control_socket::FolderOf(path));
    if (!folder)
    {
        FailWithError(path);
    }
    return *folder + "/" + path.substr(path.rfind('/') + 1);
}

std::optional<std::string> ReadWholeFile(const std::string& path)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
    {
        if (errno == ENOENT)
        {
            return std::nullopt;
        }
        FailWithError(path);
    }
    struct stat info = {};
    if (fstat(file.Get(), &info) != 0)
    {
        FailWithError(path);
    }
    if (!S_ISREG(info.st_mode) || info.st_size > MostBytes)
    {
        Fail(path, S_ISREG(info.st_mode) ? "the file is too long" : "this is no ordinary file");
    }
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t filled = 0;
    while (filled < bytes.size())
    {
        const ssize_t count = read(file.Get(), bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno != EINTR)
        {
            FailWithError(path);
        }
        if (count == 0)
        {
            break;
        }
        filled += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    bytes.resize(filled);
    return bytes;
}

void ReplaceWholeFile(const std::string& path, std::string_view bytes)
{
    const std::string fresh = path + NewSuffix;
    if (unlink(fresh.c_str()) != 0 && errno != ENOENT)
    {
        FailWithError(fresh);
    }
    const Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file)
    {
        FailWithError(fresh);
    }
    try
    {
        TakeOver(file, fresh, path);
        WriteAll(file, fresh, bytes);
        Sync(file, fresh);
        if (rename(fresh.c_str(), path.c_str()) != 0)
        {
            FailWithError(path);
        }
    }
    catch (...)
    {
        unlink(fresh.c_str());
        throw;
    }
    // The name, too, is to survive.
    const std::string folder = control_socket::FolderOf(path);
    const Descriptor names(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!names)
    {
        FailWithError(folder);
    }
    Sync(names, folder);
}
}
