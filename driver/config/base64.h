// Base64 text as the installer writes it.
#pragma once

#include <ntifs.h>

// Decodes `count` characters into `output`. *outputBytes: the room on entry, the bytes written on return. The room must
// exceed what the full groups decode to, and one byte more for a short last group. Both the standard and the URL-safe
// alphabets are taken; any other character counts as zero bits, and padding ends the text. False, with nothing written,
// for a null or zero argument and for too little room. IRQL up to DISPATCH_LEVEL.
bool DecodeBase64(PCWSTR text, ULONG count, PUCHAR output, PULONG outputBytes);
