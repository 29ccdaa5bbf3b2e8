#include "agent/tarnctl/files.h"
#include "agent/tarnctl/text.h"
#include "agent/tarnctl/windows_error.h"

#include <windows.h>

#include <algorithm>
#include <utility>

namespace tarnctl
{
namespace
{
constexpr int NameAttempts = 100;
constexpr std::size_t MostAtOnce = 1 << 20;

std::wstring Wide(const std::string& path)
{
    const std::optional<std::u16string> wide = ToUtf16(path);
    if (!wide)
    {
        throw Failure(ExitCode::WrongUse, "a path is no valid text");
    }
    return {wide->begin(), wide->end()};
}

FileIdentity IdentityOf(const BY_HANDLE_FILE_INFORMATION& information)
{
    return {information.dwVolumeSerialNumber,
        (std::uint64_t{information.nFileIndexHigh} << 32) | information.nFileIndexLow};
}

class WindowsInput : public InputFile
{
public:
    WindowsInput(std::string path, HANDLE file, FileIdentity identity)
        : path_(std::move(path)), file_(file), identity_(identity)
    {
    }
    ~WindowsInput() override { CloseHandle(file_); }

    std::size_t Read(std::span<std::uint8_t> bytes) override
    {
        std::size_t done = 0;
        while (done < bytes.size())
        {
            const DWORD wanted = static_cast<DWORD>(std::min(bytes.size() - done, MostAtOnce));
            DWORD count = 0;
            // A pipe whose other end has gone has ended.
            if (!ReadFile(file_, bytes.data() + done, wanted, &count, nullptr) && GetLastError() != ERROR_BROKEN_PIPE)
            {
                FailWithLastError(ExitCode::Trouble, path_ + ": cannot be read");
            }
            if (count == 0)
            {
                break;
            }
            done += count;
        }
        return done;
    }

    FileIdentity Identity() const override { return identity_; }

private:
    std::string path_;
    HANDLE file_;
    FileIdentity identity_;
};

class WindowsOutput : public OutputFile
{
public:
    WindowsOutput(std::string path, std::wstring temporary, HANDLE file)
        : path_(std::move(path)), temporary_(std::move(temporary)), file_(file)
    {
    }

    ~WindowsOutput() override
    {
        if (file_ != INVALID_HANDLE_VALUE)
        {
            CloseHandle(file_);
        }
        if (!finished_)
        {
            DeleteFileW(temporary_.c_str());
        }
    }

    void Write(std::span<const std::uint8_t> bytes) override
    {
        std::size_t done = 0;
        while (done < bytes.size())
        {
            const DWORD wanted = static_cast<DWORD>(std::min(bytes.size() - done, MostAtOnce));
            DWORD count = 0;
            if (!WriteFile(file_, bytes.data() + done, wanted, &count, nullptr))
            {
                FailWithLastError(ExitCode::Trouble, path_ + ": cannot be written");
            }
            done += count;
        }
    }

    void Finish() override
    {
        if (!FlushFileBuffers(file_))
        {
            FailWithLastError(ExitCode::Trouble, path_ + ": cannot be written");
        }
        CloseHandle(std::exchange(file_, INVALID_HANDLE_VALUE));
        if (!MoveFileExW(temporary_.c_str(), Wide(path_).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        {
            FailWithLastError(ExitCode::Trouble, path_ + ": cannot be written");
        }
        finished_ = true;
    }

private:
    std::string path_;
    std::wstring temporary_;
    HANDLE file_;
    bool finished_ = false;
};
}

std::unique_ptr<InputFile> OpenInput(const std::string& path)
{
    // A folder cannot be opened this way.
    HANDLE file = CreateFileW(Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE)
    {
        FailWithLastError(ExitCode::WrongUse, path + ": cannot be opened");
    }
    BY_HANDLE_FILE_INFORMATION information = {};
    GetFileInformationByHandle(file, &information);
    return std::make_unique<WindowsInput>(path, file, IdentityOf(information));
}

bool FindFile(const std::string& path, FileIdentity* identity)
{
    // Backup semantics open folders too; no access is needed to look.
    HANDLE file = CreateFileW(Wide(path).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE)
    {
        return false;
    }
    BY_HANDLE_FILE_INFORMATION information = {};
    const bool known = GetFileInformationByHandle(file, &information) != 0;
    CloseHandle(file);
    if (!known || (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
    {
        throw Failure(ExitCode::WrongUse, path + ": is no ordinary file");
    }
    *identity = IdentityOf(information);
    return true;
}

std::unique_ptr<OutputFile> CreateOutput(const std::string& path)
{
    for (int i = 0; i < NameAttempts; ++i)
    {
        std::wstring temporary =
            Wide(path + ".tarnctl-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(i));
        HANDLE file =
            CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE)
        {
            return std::make_unique<WindowsOutput>(path, std::move(temporary), file);
        }
        if (GetLastError() != ERROR_FILE_EXISTS)
        {
            FailWithLastError(ExitCode::Trouble, path + ": cannot be made");
        }
    }
    throw Failure(ExitCode::Trouble, path + ": no free name beside it");
}
}
