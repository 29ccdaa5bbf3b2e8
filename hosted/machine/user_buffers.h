// The memory that a program hands to the system for its requests.
#pragma once

#include "hosted/ke/user_access.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace hosted
{
class UserBuffers;

// A buffer of so many bytes for one request. It ends at most 7 bytes before an inaccessible page and is 8-byte aligned
// (`exact`: it ends at that page). The bytes in between are checked when it goes: a change there is a bug check.
class UserBuffer
{
public:
    UserBuffer(UserBuffers& owner, SIZE_T bytes, UCHAR fill, bool exact = false);
    ~UserBuffer();
    UserBuffer(const UserBuffer&) = delete;
    UserBuffer& operator=(const UserBuffer&) = delete;

    UCHAR* Address() const { return address_; }
    SIZE_T Size() const { return bytes_; }
    void Set(std::string_view content);
    // The first `bytes` bytes; all of them when there are fewer.
    std::string Content(SIZE_T bytes = ~SIZE_T{0}) const;
    // Takes the access away until the buffer goes.
    void Protect(bool readable, bool writable);
    // Sets guards on its pages (UserRegion::Guard).
    void Guard();

private:
    UserBuffers& owner_;
    std::unique_ptr<UserRegion> region_;
    SIZE_T bytes_;
    UCHAR fill_;
    UCHAR* address_;
    bool protected_ = false;
};

// Keeps the memory of finished requests for the next ones. Any thread.
class UserBuffers
{
public:
    std::unique_ptr<UserRegion> Take(SIZE_T bytes);
    void Return(std::unique_ptr<UserRegion> region);

private:
    std::mutex mutex_;
    std::multimap<SIZE_T, std::unique_ptr<UserRegion>> free_;
};
}
