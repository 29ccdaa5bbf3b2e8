// The driver's cipher for a file that is taken in pieces.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace tarnctl
{
// A multiple of the cipher's block, so that only the last piece of a file has a partial block.
inline constexpr size_t PieceBytes = 1024 * 1024;
inline constexpr size_t BlockBytes = 16;

class PieceCipher
{
public:
    // `keyBytes` is 16, 24 or 32.
    PieceCipher(const uint8_t* key, size_t keyBytes, uint8_t mask);
    ~PieceCipher();
    PieceCipher(const PieceCipher&) = delete;
    PieceCipher& operator=(const PieceCipher&) = delete;

    // `bytes` up to PieceBytes, a multiple of BlockBytes in every piece but the last. Input and output do not overlap.
    void Encipher(const uint8_t* input, uint8_t* output, size_t bytes) const;
    void Decipher(const uint8_t* input, uint8_t* output, size_t bytes) const;

private:
    // The two AES schedules, whose type only the driver's headers tell.
    static constexpr size_t ScheduleBytes = 256;
    alignas(16) uint8_t encryption_[ScheduleBytes];
    alignas(16) uint8_t decryption_[ScheduleBytes];
    uint8_t mask_;
};
}
