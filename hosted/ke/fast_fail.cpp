#include "hosted/ke/bug_check.h"

#include <ntifs.h>

extern "C" void NTAPI KeBugCheckOnFastFail(unsigned int Code)
{
    hosted::BugCheck("fast-fail", "code %u%s", Code, Code == FAST_FAIL_CORRUPT_LIST_ENTRY ? " (list corruption)" : "");
}
