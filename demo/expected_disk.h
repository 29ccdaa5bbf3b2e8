// What a file should look like on the disk, computed without the driver's code.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace demo
{
struct Key
{
    std::vector<unsigned char> Bytes;
    unsigned char Mask;
};

// Fresh random key of 32 bytes.
Key RandomKey();

// Enciphers a stream of plain bytes piece by piece: whole blocks by an EVP cipher, the last partial block by the mask.
class ExpectedDisk
{
public:
    explicit ExpectedDisk(const Key& key);
    ~ExpectedDisk();
    std::string Encipher(std::string_view plain);
    // What is left of a partial block.
    std::string Finish();

private:
    struct Cipher;
    std::unique_ptr<Cipher> cipher_;
    std::string pending_;
    unsigned char mask_;
};

class Sha256
{
public:
    Sha256();
    ~Sha256();
    void Add(std::string_view bytes);
    std::string Hex();

private:
    struct Digest;
    std::unique_ptr<Digest> digest_;
};
}
