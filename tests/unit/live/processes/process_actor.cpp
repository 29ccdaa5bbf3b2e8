#include "tests/unit/live/processes/process_actor.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

ProcessActor::ProcessActor(const std::string& executable)
{
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    pid_ = fork();
    if (pid_ == 0)
    {
        dup2(ends[1], STDIN_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        execl(executable.c_str(), executable.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ends[1]);
    channel_ = ends[0];
    EXPECT_EQ(std::to_string(pid_), ReadLine());
}

ProcessActor::~ProcessActor()
{
    Leave();
}

void ProcessActor::Leave()
{
    if (channel_ >= 0)
    {
        close(channel_);
        channel_ = -1;
        EXPECT_EQ(pid_, waitpid(pid_, nullptr, 0));
    }
}

std::string ProcessActor::Ask(const std::string& line)
{
    const std::string text = line + '\n';
    EXPECT_EQ(static_cast<ssize_t>(text.size()), send(channel_, text.data(), text.size(), MSG_NOSIGNAL));
    return ReadLine();
}

std::string ProcessActor::ReadLine()
{
    std::string line;
    char c;
    while (read(channel_, &c, 1) == 1 && c != '\n')
    {
        line.push_back(c);
    }
    return line;
}
