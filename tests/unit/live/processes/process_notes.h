// What a process notify routine was told, in order.
#pragma once

#include "hosted/ps/process.h"
#include "tests/support/machine.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

struct ProcessNote
{
    pid_t Id;
    bool Exit;
    pid_t Parent;
    pid_t On;             // the process that the routine ran in
    std::string Image;    // empty for an exit
    std::string FileName; // of the file object; "none" without one
    LONGLONG CreateTime;

    // "+ image" or "-", to compare sequences with.
    std::string Text() const { return Exit ? "-" : "+ " + Image; }
};

// Registered as a notify routine while it lives; one at a time. Any thread.
class ProcessNotes
{
public:
    ProcessNotes();
    ~ProcessNotes();

    std::vector<ProcessNote> All() const;
    std::vector<ProcessNote> Of(pid_t pid) const;
    std::vector<std::string> TextsOf(pid_t pid) const;
    bool HasExited(pid_t pid) const;
    // Runs in the routine, before it notes.
    void SetDuring(std::function<void(pid_t pid, bool exit)> during);
};
