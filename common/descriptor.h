// A file descriptor with an owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace common
{
class Descriptor
{
public:
    explicit Descriptor(int value = -1) : value_(value) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(value_, other.value_);
        return *this;
    }

    int Get() const { return value_; }
    explicit operator bool() const { return value_ >= 0; }
    void Close()
    {
        if (value_ >= 0)
        {
            close(std::exchange(value_, -1));
        }
    }

private:
    int value_;
};
}
