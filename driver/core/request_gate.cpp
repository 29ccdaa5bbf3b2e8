#include "driver/core/request_gate.h"

namespace
{
constexpr LONG OpenFlag = 1;
constexpr LONG OneRequest = 2;

// The requests inside, and whether the gate is open. Not part of the global state: nobody else touches them, and a
// request may ask at the gate when that state is gone.
LONG Gate;
KEVENT Empty;
}

void OpenRequestGate()
{
    KeInitializeEvent(&Empty, NotificationEvent, FALSE);
    __atomic_store_n(&Gate, OpenFlag, __ATOMIC_RELEASE);
}

void CloseRequestGate()
{
    if (__atomic_and_fetch(&Gate, ~OpenFlag, __ATOMIC_ACQ_REL) != 0)
    {
        KeWaitForSingleObject(&Empty, Executive, KernelMode, FALSE, nullptr);
    }
}

bool BeginRequest()
{
    LONG gate = __atomic_load_n(&Gate, __ATOMIC_RELAXED);
    while ((gate & OpenFlag) != 0)
    {
        if (__atomic_compare_exchange_n(&Gate, &gate, gate + OneRequest, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        {
            return true;
        }
    }
    return false;
}

void EndRequest()
{
    if (__atomic_sub_fetch(&Gate, OneRequest, __ATOMIC_ACQ_REL) == 0)
    {
        KeSetEvent(&Empty, IO_NO_INCREMENT, FALSE);
    }
}
