// A program that tests make do what programs do with processes: a line comes in on the standard input, one goes out on
// the standard output.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <pthread.h>

#include <cstdlib>
#include <sched.h>
#include <sstream>
#include <string>
#include <thread>

namespace
{
std::string program; // where this program lies
int childSocket = -1;

// Byte by byte, so that nothing is buffered here that belongs to the image that replaces this one.
bool ReadLine(int from, std::string* line)
{
    line->clear();
    char c;
    while (read(from, &c, 1) == 1)
    {
        if (c == '\n')
        {
            return true;
        }
        line->push_back(c);
    }
    return false;
}

void WriteLine(int to, const std::string& line)
{
    const std::string text = line + '\n';
    if (write(to, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    {
        _exit(3);
    }
}

// Forks a process that serves the other end of childSocket; true in that process.
bool ForkChild(unsigned long flags, pid_t* pid)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
    {
        _exit(3);
    }
    *pid = static_cast<pid_t>(syscall(SYS_clone, flags | SIGCHLD, 0, 0, 0, 0));
    if (*pid != 0)
    {
        close(ends[1]);
        childSocket = ends[0];
        return false;
    }
    dup2(ends[1], STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    childSocket = -1;
    return true;
}

// A child whose parent has gone before it is first heard of: "PARENT CHILD".
void Orphan()
{
    int ends[2];
    int report[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || pipe(report) != 0)
    {
        _exit(3);
    }
    const pid_t parent = fork();
    if (parent == 0)
    {
        const pid_t child = fork();
        if (child != 0)
        {
            if (write(report[1], &child, sizeof child) != sizeof child)
            {
                _exit(3);
            }
            _exit(0);
        }
        dup2(ends[1], STDIN_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        close(report[0]);
        close(report[1]);
        childSocket = -1;
        return;
    }
    pid_t child = 0;
    if (read(report[0], &child, sizeof child) != sizeof child)
    {
        _exit(3);
    }
    waitpid(parent, nullptr, 0);
    close(ends[1]);
    close(report[0]);
    close(report[1]);
    childSocket = ends[0];
    WriteLine(STDOUT_FILENO, std::to_string(parent) + ' ' + std::to_string(child));
}

void Serve();

// Replies with the id of a thread; it serves from now on when `takesOver`, else it ends with the next line.
void StartThread(bool takesOver)
{
    std::thread thread(
        [takesOver]
        {
            WriteLine(STDOUT_FILENO, std::to_string(gettid()));
            std::string line;
            if (takesOver)
            {
                Serve();
            }
            else if (ReadLine(STDIN_FILENO, &line))
            {
                return;
            }
            _exit(0);
        });
    if (takesOver)
    {
        thread.detach();
        pthread_exit(nullptr);
    }
    thread.join();
    WriteLine(STDOUT_FILENO, "joined");
}

void Exec(const std::string& path)
{
    execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
    WriteLine(STDOUT_FILENO, "failed");
}

// Many children that end at once, half of them after an exec: "done".
void Storm(int count)
{
    for (int i = 0; i < count; ++i)
    {
        const pid_t pid = fork();
        if (pid == 0)
        {
            if (i % 2 != 0)
            {
                execl(program.c_str(), program.c_str(), "leave", static_cast<char*>(nullptr));
            }
            _exit(0);
        }
        waitpid(pid, nullptr, 0);
    }
    WriteLine(STDOUT_FILENO, "done");
}

void Serve()
{
    std::string line;
    while (ReadLine(STDIN_FILENO, &line))
    {
        std::istringstream words(line);
        std::string word, argument;
        words >> word;
        std::getline(words >> std::ws, argument);
        pid_t pid;
        if (word == "leave")
        {
            _exit(0);
        }
        else if (word == "fork" || word == "sibling")
        {
            if (!ForkChild(word == "sibling" ? CLONE_PARENT : 0, &pid))
            {
                WriteLine(STDOUT_FILENO, std::to_string(pid));
            }
        }
        else if (word == "orphan")
        {
            Orphan();
        }
        else if (word == "child")
        {
            WriteLine(childSocket, argument);
            WriteLine(STDOUT_FILENO, ReadLine(childSocket, &line) ? line : "gone");
        }
        else if (word == "exec")
        {
            Exec(argument);
        }
        else if (word == "execThread")
        {
            std::thread([&argument] { Exec(argument); }).join();
        }
        else if (word == "thread")
        {
            StartThread(false);
        }
        else if (word == "leaveToThread")
        {
            StartThread(true);
        }
        else if (word == "storm")
        {
            Storm(atoi(argument.c_str()));
        }
        else if (word == "isolate")
        {
            const bool done = unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
            WriteLine(STDOUT_FILENO, done ? "done" : "failed");
        }
    }
}
}

int main(int count, char** arguments)
{
    program = arguments[0];
    if (count > 1)
    {
        return 0;
    }
    WriteLine(STDOUT_FILENO, std::to_string(getpid()));
    Serve();
    return 0;
}
