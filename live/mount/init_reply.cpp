#include "live/mount/init_reply.h"

#include <atomic>
#include <cstring>
#include <linux/fuse.h>
#include <sys/uio.h>
#include <unistd.h>

namespace live
{
namespace
{
constexpr std::uint64_t Nobody = 0;
// The request that is to be answered so; one session per process.
std::atomic<std::uint64_t> initRequest{Nobody};

ssize_t ReadRequest(int file, void* buffer, size_t length, void*)
{
    const ssize_t size = read(file, buffer, length);
    const auto* header = static_cast<const fuse_in_header*>(buffer);
    if (size >= static_cast<ssize_t>(sizeof(fuse_in_header)) && header->opcode == FUSE_INIT)
    {
        const auto* offer = reinterpret_cast<const fuse_init_in*>(header + 1);
        if (header->len >= sizeof(fuse_in_header) + 16 && (offer->flags & FUSE_HANDLE_KILLPRIV_V2) != 0)
        {
            initRequest = header->unique;
        }
    }
    return size;
}

ssize_t WriteAnswer(int file, iovec* parts, int count, void*)
{
    if (initRequest != Nobody && count >= 2 && parts[0].iov_len == sizeof(fuse_out_header) &&
        parts[1].iov_len >= offsetof(fuse_init_out, max_background))
    {
        const auto* header = static_cast<const fuse_out_header*>(parts[0].iov_base);
        if (header->unique == initRequest && header->error == 0)
        {
            static_cast<fuse_init_out*>(parts[1].iov_base)->flags |= FUSE_HANDLE_KILLPRIV_V2;
            initRequest = Nobody;
        }
    }
    return writev(file, parts, count);
}
}

void AnswerForSetIdBits(fuse_session* session)
{
    static const fuse_custom_io io = {WriteAnswer, ReadRequest, nullptr, nullptr};
    fuse_session_custom_io(session, &io, fuse_session_fd(session));
}
}
