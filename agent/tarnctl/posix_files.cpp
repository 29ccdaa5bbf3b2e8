#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarnctl
{
namespace
{
constexpr int NameAttempts = 100;

[[noreturn]] void Fail(ExitCode code, const std::string& path, const char* what, int error)
{
    throw Failure(code, path + ": " + what + ": " + std::strerror(error));
}

FileIdentity IdentityOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino};
}

class PosixInput : public InputFile
{
public:
    PosixInput(std::string path, int descriptor, FileIdentity identity)
        : path_(std::move(path)), descriptor_(descriptor), identity_(identity)
    {
    }
    ~PosixInput() override { close(descriptor_); }

    std::size_t Read(std::span<std::uint8_t> bytes) override
    {
        std::size_t done = 0;
        while (done < bytes.size())
        {
            const ssize_t count = read(descriptor_, bytes.data() + done, bytes.size() - done);
            if (count == 0)
            {
                break;
            }
            if (count > 0)
            {
                done += static_cast<std::size_t>(count);
            }
            else if (errno != EINTR)
            {
                Fail(ExitCode::Trouble, path_, "cannot be read", errno);
            }
        }
        return done;
    }

    FileIdentity Identity() const override { return identity_; }

private:
    std::string path_;
    int descriptor_;
    FileIdentity identity_;
};

class PosixOutput : public OutputFile
{
public:
    PosixOutput(std::string path, std::string temporary, int descriptor)
        : path_(std::move(path)), temporary_(std::move(temporary)), descriptor_(descriptor)
    {
    }

    ~PosixOutput() override
    {
        if (descriptor_ >= 0)
        {
            close(descriptor_);
        }
        if (!finished_)
        {
            unlink(temporary_.c_str());
        }
    }

    void Write(std::span<const std::uint8_t> bytes) override
    {
        std::size_t done = 0;
        while (done < bytes.size())
        {
            const ssize_t count = write(descriptor_, bytes.data() + done, bytes.size() - done);
            if (count >= 0)
            {
                done += static_cast<std::size_t>(count);
            }
            else if (errno != EINTR)
            {
                Fail(ExitCode::Trouble, path_, "cannot be written", errno);
            }
        }
    }

    void Finish() override
    {
        if (fsync(descriptor_) != 0)
        {
            Fail(ExitCode::Trouble, path_, "cannot be written", errno);
        }
        const int failed = close(descriptor_);
        descriptor_ = -1;
        if (failed != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0)
        {
            Fail(ExitCode::Trouble, path_, "cannot be written", errno);
        }
        finished_ = true;
    }

private:
    std::string path_;
    std::string temporary_;
    int descriptor_;
    bool finished_ = false;
};
}

std::unique_ptr<InputFile> OpenInput(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
    {
        Fail(ExitCode::WrongUse, path, "cannot be opened", errno);
    }
    struct stat status = {};
    const int failed = fstat(descriptor, &status);
    if (failed != 0 || S_ISDIR(status.st_mode))
    {
        const int error = failed != 0 ? errno : EISDIR;
        close(descriptor);
        Fail(ExitCode::WrongUse, path, "cannot be opened", error);
    }
    return std::make_unique<PosixInput>(path, descriptor, IdentityOf(status));
}

bool FindFile(const std::string& path, FileIdentity* identity)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
    {
        return false;
    }
    if (!S_ISREG(status.st_mode))
    {
        throw Failure(ExitCode::WrongUse, path + ": is no ordinary file");
    }
    *identity = IdentityOf(status);
    return true;
}

std::unique_ptr<OutputFile> CreateOutput(const std::string& path)
{
    for (int i = 0; i < NameAttempts; ++i)
    {
        std::string temporary = path + ".tarnctl-" + std::to_string(getpid()) + "-" + std::to_string(i);
        const int descriptor = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (descriptor >= 0)
        {
            return std::make_unique<PosixOutput>(path, std::move(temporary), descriptor);
        }
        if (errno != EEXIST)
        {
            Fail(ExitCode::Trouble, path, "cannot be made", errno);
        }
    }
    throw Failure(ExitCode::Trouble, path + ": no free name beside it");
}
}
