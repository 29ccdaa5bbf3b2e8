#include "hosted/fs/folder/end_journal.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hosted
{
namespace
{
struct StoredRecord
{
    ULONGLONG Mark;
    EndRecord Record;
    ULONGLONG Sum;
};

constexpr ULONGLONG RecordMark = 0x31444e454e524154; // "TARNEND1"

// FNV-1a: tells a record from one that a power cut left half written.
ULONGLONG SumOf(const EndRecord& record)
{
    ULONGLONG sum = 0xcbf29ce484222325;
    UCHAR bytes[sizeof(record)];
    std::memcpy(bytes, &record, sizeof(record));
    for (UCHAR byte : bytes)
    {
        sum = (sum ^ byte) * 0x100000001b3;
    }
    return sum;
}

int Failed(int returned)
{
    return returned == 0 ? 0 : errno;
}
}

int ApplyEndRecord(int file, const EndRecord& record)
{
    const LONGLONG start = BlockDown(record.End);
    size_t written;
    const int error = WriteStored(file, record.Tail, static_cast<size_t>(record.End - start), start, &written);
    return error != 0 ? error : TruncateStored(file, record.End);
}

EndJournal::EndJournal(int root) : root_(root)
{
    ListPending();
}

void EndJournal::ListPending()
{
    const int directory = Directory(false);
    DIR* listing = directory < 0 ? nullptr : fdopendir(fcntl(directory, F_DUPFD_CLOEXEC, 0));
    if (listing == nullptr)
    {
        return;
    }
    while (const dirent* entry = readdir(listing))
    {
        if (entry->d_name[0] != '.')
        {
            pending_.insert(entry->d_name);
        }
    }
    closedir(listing);
    pendingCount_ = pending_.size();
}

int EndJournal::Directory(bool make)
{
    constexpr int Flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    if (!directory_)
    {
        directory_ = Descriptor(openat(root_, DirectoryName, Flags));
    }
    if (!directory_ && make && (mkdirat(root_, DirectoryName, 0700) == 0 || errno == EEXIST))
    {
        directory_ = Descriptor(openat(root_, DirectoryName, Flags));
    }
    return directory_.Get();
}

std::string EndJournal::KeyOf(int file)
{
    struct statx info = {};
    if (statx(file, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &info) != 0)
    {
        return {};
    }
    char key[80];
    snprintf(key, sizeof(key), "%llx-%llx.%x", static_cast<unsigned long long>(info.stx_ino),
        static_cast<unsigned long long>(info.stx_btime.tv_sec), info.stx_btime.tv_nsec);
    return key;
}

int EndJournal::Put(const std::string& key, const EndRecord& record)
{
    int directory;
    {
        std::lock_guard guard(lock_);
        directory = Directory(true);
    }
    if (directory < 0)
    {
        return errno;
    }
    Descriptor file = CreateStored(directory, key);
    if (!file)
    {
        return errno;
    }
    const StoredRecord stored = {RecordMark, record, SumOf(record)};
    size_t written;
    const int error = WriteStored(file.Get(), &stored, sizeof(stored), 0, &written);
    if (error != 0)
    {
        RemoveStored(directory, key);
    }
    return error;
}

int EndJournal::Remove(const std::string& key)
{
    return RemoveStored(directory_.Get(), key);
}

int EndJournal::Recover(int descriptor)
{
    if (pendingCount_.load(std::memory_order_relaxed) == 0)
    {
        return 0;
    }
    std::lock_guard guard(lock_);
    const std::string key = KeyOf(descriptor);
    if (!pending_.contains(key))
    {
        return 0;
    }
    StoredRecord stored = {};
    const Descriptor record(openat(directory_.Get(), key.c_str(), O_RDONLY | O_CLOEXEC));
    const bool complete = record && pread(record.Get(), &stored, sizeof(stored), 0) == sizeof(stored) &&
                          stored.Mark == RecordMark && stored.Sum == SumOf(stored.Record);
    // Where the record is not complete, the file was not touched.
    if (complete)
    {
        const Descriptor file = Reopen(descriptor, O_RDWR);
        const int error = file ? ApplyEndRecord(file.Get(), stored.Record) : errno;
        if (error != 0)
        {
            return error;
        }
    }
    const int error = Remove(key);
    if (error == 0)
    {
        pending_.erase(key);
        pendingCount_ = pending_.size();
    }
    return error;
}

int EndJournal::Sync()
{
    return Failed(fsync(directory_.Get()));
}
}
