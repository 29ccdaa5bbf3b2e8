#include "driver/filter/block_cipher.h"

#include <cpuid.h>

// OpenSSL's own AES-NI routines; its headers do not declare them. The last argument of the third says direction.
extern "C"
{
int aesni_set_encrypt_key(const unsigned char* key, int bits, AES_KEY* schedule);
int aesni_set_decrypt_key(const unsigned char* key, int bits, AES_KEY* schedule);
void aesni_ecb_encrypt(
    const unsigned char* input, unsigned char* output, size_t bytes, const AES_KEY* schedule, int encrypt);
}

namespace
{
// Not part of the global state: it is chosen at entry, before that is cleared.
CipherFamily Family = CipherFamily::Portable;

bool IsKeyLength(ULONG keyBytes)
{
    return keyBytes == 16 || keyBytes == 24 || keyBytes == 32;
}
}

bool ProcessorHasAesInstructions()
{
    unsigned eax = 0;
    unsigned ebx = 0;
    unsigned ecx = 0;
    unsigned edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_AES) != 0;
}

void SelectCipherFamily(CipherFamily family)
{
    Family = family;
}

bool MakeEncryptionSchedule(const UCHAR* key, ULONG keyBytes, AES_KEY* schedule)
{
    if (!IsKeyLength(keyBytes))
    {
        return false;
    }
    int bits = static_cast<int>(keyBytes * 8);
    int failure = Family == CipherFamily::Instructions ? aesni_set_encrypt_key(key, bits, schedule)
                                                       : AES_set_encrypt_key(key, bits, schedule);
    return failure == 0;
}

bool MakeDecryptionSchedule(const UCHAR* key, ULONG keyBytes, AES_KEY* schedule)
{
    if (!IsKeyLength(keyBytes))
    {
        return false;
    }
    int bits = static_cast<int>(keyBytes * 8);
    int failure = Family == CipherFamily::Instructions ? aesni_set_decrypt_key(key, bits, schedule)
                                                       : AES_set_decrypt_key(key, bits, schedule);
    return failure == 0;
}

bool IsUsable(const AES_KEY& schedule)
{
    return schedule.rounds != 0;
}

void EncipherBlocks(const AES_KEY& schedule, const UCHAR* input, UCHAR* output, SIZE_T bytes)
{
    if (Family == CipherFamily::Instructions)
    {
        aesni_ecb_encrypt(input, output, bytes, &schedule, AES_ENCRYPT);
        return;
    }
    for (SIZE_T i = 0; i < bytes; i += CipherBlockBytes)
    {
        AES_encrypt(input + i, output + i, &schedule);
    }
}

void DecipherBlocks(const AES_KEY& schedule, const UCHAR* input, UCHAR* output, SIZE_T bytes)
{
    if (Family == CipherFamily::Instructions)
    {
        aesni_ecb_encrypt(input, output, bytes, &schedule, AES_DECRYPT);
        return;
    }
    for (SIZE_T i = 0; i < bytes; i += CipherBlockBytes)
    {
        AES_decrypt(input + i, output + i, &schedule);
    }
}
