#include "agent/tarnctl/posix_interruption.h"

#include "agent/tarnctl/failure.h"

#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>

namespace tarnctl
{
namespace
{
// What the handler, which has no argument, writes to.
std::atomic<int> target{-1};
static_assert(std::atomic<int>::is_always_lock_free);

void Handle(int)
{
    const int saved = errno;
    eventfd_write(target.load(), 1);
    errno = saved;
}
}

Interruption::Interruption() : readable_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!readable_)
    {
        throw Failure(ExitCode::Trouble, "the host has no descriptor left for the program's interruption");
    }
    target = readable_.Get();
    struct sigaction action = {};
    action.sa_handler = Handle;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(Signals); ++i)
    {
        sigaction(Signals[i], nullptr, &previous_[i]);
        // What the caller wanted to have ignored stays so, as under nohup.
        if (previous_[i].sa_handler != SIG_IGN)
        {
            sigaction(Signals[i], &action, nullptr);
        }
    }
}

Interruption::~Interruption()
{
    for (std::size_t i = 0; i < std::size(Signals); ++i)
    {
        sigaction(Signals[i], &previous_[i], nullptr);
    }
    target = -1;
}
}
