// AES in electronic code book, by OpenSSL: its AES-NI routines where the processor has the instructions (SSE
// registers only, so safe in kernel code at any IRQL), its portable ones otherwise. A schedule is used only by the
// family that made it; the family is chosen once, at load. Nothing here allocates or locks: any IRQL.
#pragma once

#include <ntifs.h>

#include <openssl/aes.h>

inline constexpr ULONG CipherBlockBytes = 16;

enum class CipherFamily
{
    Portable,
    Instructions
};

// As the processor says of itself.
bool ProcessorHasAesInstructions();
// Before any schedule is made. `Instructions` only where the processor has them.
void SelectCipherFamily(CipherFamily family);

// False, with the schedule left as it is, unless keyBytes is 16, 24 or 32.
bool MakeEncryptionSchedule(const UCHAR* key, ULONG keyBytes, AES_KEY* schedule);
bool MakeDecryptionSchedule(const UCHAR* key, ULONG keyBytes, AES_KEY* schedule);
// A zero-filled schedule that no key was made into must not be used.
bool IsUsable(const AES_KEY& schedule);

// Each block on its own; `bytes` is a multiple of the block's. Input and output are the same or do not overlap.
void EncipherBlocks(const AES_KEY& schedule, const UCHAR* input, UCHAR* output, SIZE_T bytes);
void DecipherBlocks(const AES_KEY& schedule, const UCHAR* input, UCHAR* output, SIZE_T bytes);
