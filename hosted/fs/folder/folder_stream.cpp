#include "hosted/fs/folder/folder_stream.h"

#include "hosted/cc/cache.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
namespace
{
// Every host file system holds files of this size.
constexpr LONGLONG SurelyHeld = 1ll << 31;
constexpr ULONG LongWrite = CacheViewBytes;

NTSTATUS Result(int error)
{
    return error == 0 ? STATUS_SUCCESS : StatusFromErrno(error);
}
}

NTSTATUS FolderStream::Ready(bool write)
{
    std::lock_guard guard(open_);
    if (write_ >= 0 || (!write && read_))
    {
        return STATUS_SUCCESS;
    }
    if (journal_ != nullptr)
    {
        // One descriptor for both, where the host allows it.
        ownWrite_ = Reopen(path_, O_RDWR);
        write_ = ownWrite_.Get();
    }
    if (write_ < 0 && !write)
    {
        read_ = Reopen(path_, O_RDONLY);
    }
    return write_ >= 0 || (!write && read_) ? STATUS_SUCCESS : StatusFromErrno(errno);
}

// -1 with errno where the file cannot be opened.
int FolderStream::Number(bool write)
{
    if (!NT_SUCCESS(Ready(write)))
    {
        return -1;
    }
    std::lock_guard guard(open_);
    return write_ >= 0 ? write_ : read_.Get();
}

NTSTATUS FolderStream::Sync()
{
    // Without a descriptor nothing was read or written here. One for reading does as well.
    int file;
    {
        std::lock_guard guard(open_);
        file = write_ >= 0 ? write_ : read_.Get();
    }
    if (file < 0 || journal_ == nullptr)
    {
        return STATUS_SUCCESS;
    }
    int error = fsync(file) == 0 ? 0 : errno;
    if (error == 0 && journaled_.exchange(false))
    {
        error = journal_->Sync();
    }
    return Result(error);
}

NTSTATUS FolderStream::Read(LONGLONG offset, void* buffer, ULONG length)
{
    const LONGLONG stored = std::clamp<LONGLONG>(Physical() - offset, 0, length);
    auto* to = static_cast<char*>(buffer);
    const int file = stored != 0 ? Number(false) : -1;
    if (stored != 0 && file < 0)
    {
        return StatusFromErrno(errno);
    }
    for (LONGLONG done = 0; done < stored;)
    {
        const ssize_t moved = pread(file, to + done, static_cast<size_t>(stored - done), offset + done);
        if (moved < 0 && errno != EINTR)
        {
            return StatusFromErrno(errno);
        }
        if (moved == 0)
        {
            // Someone made the file shorter behind the volume's back.
            return STATUS_UNEXPECTED_IO_ERROR;
        }
        done += moved > 0 ? moved : 0;
    }
    std::memset(to + stored, 0, static_cast<size_t>(length - stored));
    return STATUS_SUCCESS;
}

LONGLONG FolderStream::WriteFirst() const
{
    const LONGLONG physical = Physical();
    return physical % BlockBytes != 0 && physical < size_ ? physical : -1;
}

// Whether the write would make the stored file's short last block longer without writing all of it.
bool FolderStream::TearsLastBlock(LONGLONG offset, ULONG length) const
{
    const LONGLONG physical = Physical();
    const LONGLONG start = BlockDown(physical);
    const LONGLONG end = offset + length;
    const bool harmless = end <= start || (offset <= start && end >= std::min(start + BlockBytes, size_));
    return WriteFirst() >= 0 && !harmless;
}

NTSTATUS FolderStream::Write(LONGLONG offset, const void* buffer, ULONG length)
{
    if (journal_ == nullptr)
    {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    const int file = Number(true);
    if (file < 0)
    {
        return StatusFromErrno(errno);
    }
    int error = FinishEnd();
    if (error != 0)
    {
        return StatusFromErrno(error);
    }
    if (TearsLastBlock(offset, length))
    {
        // The page goes first by WriteFirst, so it could not be written, either.
        return STATUS_UNEXPECTED_IO_ERROR;
    }
    const bool shortens = Physical() > size_ && offset <= BlockDown(size_) && offset + length >= size_;
    error = shortens ? BeginEnd(offset, buffer) : 0;
    if (error != 0)
    {
        return StatusFromErrno(error);
    }
    size_t written;
    error = WriteStored(file, buffer, length, offset, &written);
    physical_ = std::max<LONGLONG>(physical_, offset + static_cast<LONGLONG>(written));
    if (error != 0)
    {
        return StatusFromErrno(error);
    }
    if (length >= LongWrite)
    {
        // On its way to the disk now, so that whoever synchronizes a long file has not all of it to wait for. Where the
        // host cannot do this nothing is lost.
        sync_file_range(file, offset, length, SYNC_FILE_RANGE_WRITE);
    }
    if (ending_.has_value())
    {
        error = Cut(size_);
        error = error == 0 ? journal_->Remove(key_) : error;
        if (error == 0)
        {
            ending_.reset();
        }
        return Result(error);
    }
    return Result(Settle());
}

int FolderStream::BeginEnd(LONGLONG offset, const void* buffer)
{
    key_ = EndJournal::KeyOf(path_);
    if (key_.empty())
    {
        return errno;
    }
    EndRecord record = {.End = size_, .Tail = {}};
    const LONGLONG start = BlockDown(size_);
    std::memcpy(record.Tail, static_cast<const char*>(buffer) + (start - offset), static_cast<size_t>(size_ - start));
    const int error = journal_->Put(key_, record);
    if (error == 0)
    {
        ending_ = record;
        journaled_ = true;
    }
    return error;
}

int FolderStream::FinishEnd()
{
    if (!ending_.has_value())
    {
        return 0;
    }
    const int file = Number(true);
    int error = file < 0 ? errno : ApplyEndRecord(file, *ending_);
    if (error == 0)
    {
        physical_ = ending_->End;
        error = journal_->Remove(key_);
    }
    if (error == 0)
    {
        ending_.reset();
    }
    return error;
}

int FolderStream::Cut(LONGLONG size)
{
    const int file = Number(true);
    const int error = file < 0 ? errno : TruncateStored(file, size);
    if (error == 0)
    {
        physical_ = size;
    }
    return error;
}

int FolderStream::Settle()
{
    const LONGLONG physical = Physical();
    // The cache has the page of an end inside of a page, and writes it.
    const bool wanted = physical < size_ && size_ % PAGE_SIZE == 0 && physical % BlockBytes == 0;
    return wanted ? Cut(size_) : 0;
}

NTSTATUS FolderStream::Reserve(LONGLONG offset, LONGLONG length)
{
    const int file = Number(true);
    if (file < 0 || fallocate(file, FALLOC_FL_KEEP_SIZE, offset, length) == 0)
    {
        return STATUS_SUCCESS;
    }
    // Where the host cannot keep room free, or is interrupted, the write itself will tell.
    return errno == ENOSPC || errno == EDQUOT || errno == EFBIG ? StatusFromErrno(errno) : STATUS_SUCCESS;
}

NTSTATUS FolderStream::SetSize(LONGLONG size)
{
    if (journal_ == nullptr)
    {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    int error = FinishEnd();
    if (error != 0)
    {
        return StatusFromErrno(error);
    }
    const LONGLONG before = size_;
    const LONGLONG physical = Physical();
    // The stored file may follow later, when it is too late to refuse.
    const int file = size > SurelyHeld && size > before ? Number(true) : -1;
    if (file >= 0 && lseek(file, size, SEEK_SET) < 0)
    {
        return STATUS_DISK_FULL;
    }
    size_ = size;
    if (size >= physical)
    {
        error = Settle();
    }
    else
    {
        // Of a short last block any beginning is a short last block.
        const bool ofShortBlock = physical % BlockBytes != 0 && BlockDown(size) == BlockDown(physical);
        const LONGLONG cut = ofShortBlock ? size : BlockUp(size);
        error = cut < physical ? Cut(cut) : 0;
    }
    if (error != 0)
    {
        size_ = before;
    }
    return Result(error);
}
}
