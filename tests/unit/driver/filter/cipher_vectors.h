// Published AES vectors, and AES by OpenSSL's EVP calls, to compare the driver's cipher with.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace cipher_test
{
inline std::string FromHex(std::string_view hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
    {
        bytes.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

struct Vector
{
    const char* Key;
    const char* Plain;
    const char* Cipher;
};

// FIPS-197, appendix C: one block for each key length.
inline constexpr Vector Fips197[] = {
    {"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
        "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "00112233445566778899aabbccddeeff",
        "8ea2b7ca516745bfeafc49904b496089"}};

inline constexpr char Sp80038aPlain[] = "6bc1bee22e409f96e93d7e117393172a"
                                        "ae2d8a571e03ac9c9eb76fac45af8e51"
                                        "30c81c46a35ce411e5fbc1191a0a52ef"
                                        "f69f2445df4f9b17ad2b417be66c3710";

// SP 800-38A, F.1: four blocks in electronic code book for each key length.
inline constexpr Vector Sp80038a[] = {{"2b7e151628aed2a6abf7158809cf4f3c", Sp80038aPlain,
                                          "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
                                          "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4"},
    {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b", Sp80038aPlain,
        "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
        "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e"},
    {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4", Sp80038aPlain,
        "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
        "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7"}};

inline std::string Crypt(std::string_view key, std::string_view input, bool encipher)
{
    const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_ecb()
                               : key.size() == 24 ? EVP_aes_192_ecb()
                                                  : EVP_aes_256_ecb();
    std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    std::string output(input.size() + 16, '\0');
    int length = 0;
    const bool done = EVP_CipherInit_ex(context.get(), cipher, nullptr,
                          reinterpret_cast<const unsigned char*>(key.data()), nullptr, encipher ? 1 : 0) == 1 &&
                      EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
                      EVP_CipherUpdate(context.get(), reinterpret_cast<unsigned char*>(output.data()), &length,
                          reinterpret_cast<const unsigned char*>(input.data()), static_cast<int>(input.size())) == 1;
    if (!done || static_cast<size_t>(length) != input.size())
    {
        throw std::runtime_error("EVP does not encipher");
    }
    output.resize(input.size());
    return output;
}

// What lies on the disk for a span: whole blocks under AES, the rest masked.
inline std::string OnDisk(std::string_view key, unsigned char mask, std::string_view plain)
{
    const size_t whole = plain.size() / 16 * 16;
    std::string disk = whole == 0 ? std::string() : Crypt(key, plain.substr(0, whole), true);
    for (const char byte : plain.substr(whole))
    {
        disk.push_back(static_cast<char>(byte ^ mask));
    }
    return disk;
}

// No two blocks alike, and none zero.
inline std::string Pattern(size_t bytes, unsigned seed = 1)
{
    std::string pattern(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i)
    {
        seed = seed * 1664525 + 1013904223;
        pattern[i] = static_cast<char>(seed >> 24 | 1);
    }
    return pattern;
}
}
