// A listening Unix socket with its name in the file system.
#pragma once

#include "common/descriptor.h"

#include <sys/stat.h>

#include <string>

namespace hosted
{
using common::Descriptor;

class ControlListener
{
public:
    // See ControlServer. Throws std::runtime_error.
    explicit ControlListener(const std::string& path);
    // Removes the name, if it is still this socket's.
    ~ControlListener();
    ControlListener(const ControlListener&) = delete;
    ControlListener& operator=(const ControlListener&) = delete;

    // Does not block.
    int Socket() const { return socket_.Get(); }

private:
    const std::string path_;
    Descriptor socket_;
    struct stat made_ = {};
};
}
