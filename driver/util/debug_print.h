// Kernel debugger output in the driver's fixed forms. Formats that print wide text (%wZ, %ws) at PASSIVE_LEVEL only,
// all others at any IRQL.
#pragma once

#include <ntifs.h>

// Modules whose lines begin with the driver's file name print it in a call of its own.
template <class... Arguments>
inline void PrintWithDriverName(PCSTR format, Arguments... arguments)
{
    DbgPrint("Tarnveil.sys: ");
    DbgPrint(format, arguments...);
}

// A process id as %d prints it and as records carry it.
inline ULONG ProcessIdNumber(HANDLE processId)
{
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(processId));
}
inline HANDLE ProcessIdHandle(ULONG number)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(number));
}
