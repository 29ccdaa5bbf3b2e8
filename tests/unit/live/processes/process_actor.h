// A child program that does with processes what it is told.
#pragma once

#include <sys/types.h>

#include <string>

class ProcessActor
{
public:
    // Runs the executable, the actor itself or a copy of it.
    explicit ProcessActor(const std::string& executable = TARNVEIL_PROCESS_ACTOR);
    // Ends it, and waits for its end.
    ~ProcessActor();
    ProcessActor(const ProcessActor&) = delete;
    ProcessActor& operator=(const ProcessActor&) = delete;

    pid_t Id() const { return pid_; }
    // What it answers to a line; see tests/actors/process_actor.cpp.
    std::string Ask(const std::string& line);
    pid_t AskId(const std::string& line) { return static_cast<pid_t>(std::stol(Ask(line))); }
    // Tells it to end, and waits for that.
    void Leave();

private:
    std::string ReadLine();

    pid_t pid_;
    int channel_ = -1;
};
