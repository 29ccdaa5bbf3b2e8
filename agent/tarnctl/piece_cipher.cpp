// Compiled with the kernel's headers, as the driver's cipher is; the rest of the program sees the user mode's.
#include "agent/tarnctl/piece_cipher.h"

#include "driver/filter/stream_cipher.h"

namespace tarnctl
{
namespace
{
const AES_KEY& Schedule(const uint8_t* bytes)
{
    return *reinterpret_cast<const AES_KEY*>(bytes);
}
}

PieceCipher::PieceCipher(const uint8_t* key, size_t keyBytes, uint8_t mask) : mask_(mask)
{
    static_assert(sizeof(AES_KEY) <= ScheduleBytes && alignof(AES_KEY) <= 16);
    RtlZeroMemory(encryption_, sizeof(encryption_));
    RtlZeroMemory(decryption_, sizeof(decryption_));
    SelectCipherFamily(ProcessorHasAesInstructions() ? CipherFamily::Instructions : CipherFamily::Portable);
    MakeEncryptionSchedule(key, static_cast<ULONG>(keyBytes), reinterpret_cast<AES_KEY*>(encryption_));
    MakeDecryptionSchedule(key, static_cast<ULONG>(keyBytes), reinterpret_cast<AES_KEY*>(decryption_));
}

PieceCipher::~PieceCipher()
{
    volatile uint8_t* schedules[] = {encryption_, decryption_};
    for (volatile uint8_t* schedule : schedules)
    {
        for (size_t i = 0; i < ScheduleBytes; ++i)
        {
            schedule[i] = 0;
        }
    }
}

void PieceCipher::Encipher(const uint8_t* input, uint8_t* output, size_t bytes) const
{
    const ULONG length = static_cast<ULONG>(bytes);
    // The span is written only by the other direction.
    EncipherSpan(Schedule(encryption_), mask_, {const_cast<UCHAR*>(input), length}, length, output);
}

void PieceCipher::Decipher(const uint8_t* input, uint8_t* output, size_t bytes) const
{
    const ULONG length = static_cast<ULONG>(bytes);
    DecipherSpan(Schedule(decryption_), mask_, input, length, {output, length});
}
}
