#include "hosted/machine/user_buffers.h"

#include "hosted/ke/bug_check.h"

#include <algorithm>

namespace hosted
{
namespace
{
constexpr SIZE_T BufferAlignment = 8;
constexpr size_t MostFreeRegions = 32;
}

UserBuffer::UserBuffer(UserBuffers& owner, SIZE_T bytes, UCHAR fill, bool exact)
    : owner_(owner), region_(owner.Take(std::max<SIZE_T>(bytes, 1))), bytes_(bytes), fill_(fill),
      address_(region_->Tail(exact ? bytes : ALIGN_UP_BY(bytes, BufferAlignment)))
{
    std::fill(address_, region_->Base() + region_->Size(), fill_);
}

UserBuffer::~UserBuffer()
{
    if (protected_)
    {
        region_->Protect(true, true);
    }
    const UCHAR* end = region_->Base() + region_->Size();
    if (std::any_of(const_cast<const UCHAR*>(address_) + bytes_, end, [this](UCHAR byte) { return byte != fill_; }))
    {
        BugCheck("USER_BUFFER_OVERRUN", "bytes behind a program's buffer of %llu bytes were changed", bytes_);
    }
    owner_.Return(std::move(region_));
}

void UserBuffer::Set(std::string_view content)
{
    std::copy_n(content.data(), std::min<SIZE_T>(content.size(), bytes_), address_);
}

std::string UserBuffer::Content(SIZE_T bytes) const
{
    if (protected_)
    {
        region_->Protect(true, true);
    }
    return std::string(reinterpret_cast<const char*>(address_), std::min(bytes, bytes_));
}

void UserBuffer::Protect(bool readable, bool writable)
{
    region_->Protect(readable, writable);
    protected_ = true;
}

void UserBuffer::Guard()
{
    region_->Guard();
    protected_ = true;
}

std::unique_ptr<UserRegion> UserBuffers::Take(SIZE_T bytes)
{
    {
        const std::lock_guard lock(mutex_);
        const auto found = free_.lower_bound(bytes);
        // A far larger one is kept for a request that needs it.
        if (found != free_.end() && found->first <= std::max<SIZE_T>(4 * bytes, 4 * PAGE_SIZE))
        {
            auto region = std::move(found->second);
            free_.erase(found);
            return region;
        }
    }
    return std::make_unique<UserRegion>(bytes);
}

void UserBuffers::Return(std::unique_ptr<UserRegion> region)
{
    const std::lock_guard lock(mutex_);
    if (free_.size() < MostFreeRegions)
    {
        const SIZE_T size = region->Size();
        free_.emplace(size, std::move(region));
    }
}
}
