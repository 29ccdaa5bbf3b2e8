// Formatting into a buffer that is never overrun, as far as the driver uses it. One text for both builds, so that the
// driver formats alike in both; it stands in front of the DDK's header, most of which is about other routines.
#pragma once

#include <ntifs.h>

#define NTSTRSAFE_MAX_CCH 2147483647

typedef WCHAR* NTSTRSAFE_PWSTR;
typedef const WCHAR* NTSTRSAFE_PCWSTR;

// A text that does not fit is left out altogether instead of being cut.
#define STRSAFE_NO_TRUNCATION 0x00001000
// After a failure the buffer holds the empty string.
#define STRSAFE_NULL_ON_FAILURE 0x00000800

// The platform's formatter. hosted/include/ntstrsafe.h has another name for it.
#ifndef NTSTRSAFE_VSNWPRINTF
#define NTSTRSAFE_VSNWPRINTF _vsnwprintf
#endif

extern "C"
{

// Formats into `destination`, a buffer of `destinationBytes`, terminator included. *end receives the place of the
// terminator, *remainingBytes what is left of the buffer from there on, terminator included; both may be null, and
// both are left alone by STATUS_INVALID_PARAMETER.
//
// STATUS_BUFFER_OVERFLOW: the text does not fit. With either flag the buffer then holds the empty string and all of it
// remains; without, the text is cut. STATUS_INVALID_PARAMETER: a null buffer or format, a buffer of no character or
// above NTSTRSAFE_MAX_CCH characters, or a flag other than the two above. PASSIVE_LEVEL.
inline NTSTATUS RtlStringCbVPrintfExW(NTSTRSAFE_PWSTR destination, size_t destinationBytes, NTSTRSAFE_PWSTR* end,
    size_t* remainingBytes, ULONG flags, NTSTRSAFE_PCWSTR format, __builtin_ms_va_list arguments)
{
    const size_t capacity = destinationBytes / sizeof(WCHAR);
    if (destination == nullptr || format == nullptr || capacity == 0 || capacity > NTSTRSAFE_MAX_CCH ||
        (flags & ~static_cast<ULONG>(STRSAFE_NO_TRUNCATION | STRSAFE_NULL_ON_FAILURE)) != 0)
    {
        return STATUS_INVALID_PARAMETER;
    }
    const size_t most = capacity - 1;
    const int written = NTSTRSAFE_VSNWPRINTF(destination, most, format, arguments);
    const bool fits = written >= 0 && static_cast<size_t>(written) <= most;
    size_t used = fits ? static_cast<size_t>(written) : most;
    if (!fits && flags != 0)
    {
        used = 0;
    }
    destination[used] = 0;
    if (end != nullptr)
    {
        *end = destination + used;
    }
    if (remainingBytes != nullptr)
    {
        *remainingBytes = destinationBytes - used * sizeof(WCHAR);
    }
    return fits ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

// The same with the arguments themselves.
inline NTSTATUS __cdecl RtlStringCbPrintfExW(NTSTRSAFE_PWSTR destination, size_t destinationBytes, NTSTRSAFE_PWSTR* end,
    size_t* remainingBytes, ULONG flags, NTSTRSAFE_PCWSTR format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const NTSTATUS status =
        RtlStringCbVPrintfExW(destination, destinationBytes, end, remainingBytes, flags, format, arguments);
    __builtin_ms_va_end(arguments);
    return status;
}
}
