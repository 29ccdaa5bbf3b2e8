#include "driver/filter/stream_cipher.h"

namespace
{
void MaskBytes(const UCHAR* input, UCHAR* output, ULONG bytes, UCHAR mask)
{
    for (ULONG i = 0; i < bytes; ++i)
    {
        output[i] = input[i] ^ mask;
    }
}

bool IsZeroBlock(const UCHAR* block)
{
    ULONGLONG halves[2];
    RtlCopyMemory(halves, block, sizeof(halves));
    return (halves[0] | halves[1]) == 0;
}

ULONG WholeBlocks(ULONG bytes)
{
    return bytes / CipherBlockBytes * CipherBlockBytes;
}

// The block in which the caller's span ends, completed by what lies behind it on the same page.
void CompleteLastBlock(const CallerSpan& caller, ULONG offset, UCHAR* block)
{
    RtlZeroMemory(block, CipherBlockBytes);
    const UCHAR* from = caller.Data + offset;
    ULONG inSpan = caller.Length - offset;
    ULONG_PTR lastByte = reinterpret_cast<ULONG_PTR>(from + inSpan - 1);
    ULONG_PTR leftOnPage = PAGE_SIZE - 1 - (lastByte & (PAGE_SIZE - 1));
    ULONG wanted = CipherBlockBytes - inSpan;
    ULONG behind = wanted < leftOnPage ? wanted : static_cast<ULONG>(leftOnPage);
    RtlCopyMemory(block, from, inSpan + behind);
}

// As many bytes at once as surely still lie in the processor's nearest cache when they are touched again.
constexpr ULONG LongestRun = 4096;

// Deciphers whole blocks, leaving the all-zero ones as they are; what lies between two of them in few calls.
void DecipherWholeBlocks(const AES_KEY& schedule, const UCHAR* input, UCHAR* output, ULONG bytes)
{
    ULONG start = 0;
    while (start < bytes)
    {
        bool zero = IsZeroBlock(input + start);
        ULONG end = start + CipherBlockBytes;
        while (end < bytes && end - start < LongestRun && IsZeroBlock(input + end) == zero)
        {
            end += CipherBlockBytes;
        }
        if (zero)
        {
            RtlZeroMemory(output + start, end - start);
        }
        else
        {
            DecipherBlocks(schedule, input + start, output + start, end - start);
        }
        start = end;
    }
}
}

void EncipherSpan(const AES_KEY& schedule, UCHAR mask, const CallerSpan& caller, ULONG bytes, UCHAR* output)
{
    if (bytes > caller.Length)
    {
        ULONG before = WholeBlocks(caller.Length);
        EncipherBlocks(schedule, caller.Data, output, before);
        UCHAR block[CipherBlockBytes];
        CompleteLastBlock(caller, before, block);
        EncipherBlocks(schedule, block, output + before, CipherBlockBytes);
        return;
    }
    ULONG whole = WholeBlocks(bytes);
    EncipherBlocks(schedule, caller.Data, output, whole);
    MaskBytes(caller.Data + whole, output + whole, bytes - whole, mask);
}

void DecipherSpan(const AES_KEY& schedule, UCHAR mask, const UCHAR* input, ULONG bytes, const CallerSpan& caller)
{
    ULONG whole = WholeBlocks(bytes);
    ULONG direct = whole <= caller.Length ? whole : WholeBlocks(caller.Length);
    DecipherWholeBlocks(schedule, input, caller.Data, direct);
    if (direct < whole)
    {
        UCHAR block[CipherBlockBytes];
        DecipherWholeBlocks(schedule, input + direct, block, CipherBlockBytes);
        RtlCopyMemory(caller.Data + direct, block, caller.Length - direct);
        return;
    }
    ULONG room = caller.Length - whole;
    ULONG partial = bytes - whole;
    MaskBytes(input + whole, caller.Data + whole, partial < room ? partial : room, mask);
}
