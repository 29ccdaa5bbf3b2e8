// How a loaded image calls the hosted kernel: through stubs that remember the image's registers at the call. When a
// routine abandons the call because of a fault in user memory, the image's own handlers are searched from there.
#pragma once

#include "hosted/ldr/exception.h"

#include <vector>

namespace hosted
{
// The image's registers as they are right behind a call that is under way.
struct CallOut
{
    ULONGLONG Rip; // where the call returns to
    ULONGLONG Rsp; // after the return
    ULONGLONG Rbx, Rbp, Rsi, Rdi, R12, R13, R14, R15;
    Xmm Vector6To15[10];
};

// Executable stubs, one per imported routine.
class CallOutTable
{
public:
    CallOutTable();
    ~CallOutTable();
    CallOutTable(const CallOutTable&) = delete;
    CallOutTable& operator=(const CallOutTable&) = delete;

    // The address for an import of the routine. Before Seal.
    void* Add(void* routine);
    // From here on executable and no longer writable.
    void Seal();

private:
    UCHAR* code_;
    size_t used_ = 0;
};

// The calling thread's calls that are under way, outermost first.
size_t CallOutDepth();
const CallOut& InnermostCallOut();
// Forgets those beyond the first `depth`: they were abandoned.
void TrimCallOuts(size_t depth);

// Continues with these registers.
[[noreturn]] void ContinueAt(const ProcessorContext& context);
}
