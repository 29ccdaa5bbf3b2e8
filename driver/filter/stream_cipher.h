// The on-disk form of an enciphered stream: whole blocks under AES, each on its own; the bytes of a trailing partial
// block XORed with a mask byte; on the way back, blocks that are entirely zero on disk stay zeros, so that regions
// which were never written read as zeros.
#pragma once

#include "driver/filter/block_cipher.h"

// The caller's bytes of one transfer, as many as the caller says there are.
struct CallerSpan
{
    UCHAR* Data;
    ULONG Length;
};

// Enciphers `bytes` of the caller's data into `output`. `bytes` may reach up to one block past the caller's span, when
// a write is lengthened to a whole block: what lies behind the span on the same page is taken along, and zeros stand
// in for what lies on the next page, which need not exist.
void EncipherSpan(const AES_KEY& schedule, UCHAR mask, const CallerSpan& caller, ULONG bytes, UCHAR* output);

// Deciphers `bytes` read from disk into the caller's span; what goes past the span's end is dropped.
void DecipherSpan(const AES_KEY& schedule, UCHAR mask, const UCHAR* input, ULONG bytes, const CallerSpan& caller);
