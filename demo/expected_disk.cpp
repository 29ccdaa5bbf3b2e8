#include "demo/expected_disk.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <stdexcept>

namespace demo
{
namespace
{
constexpr size_t BlockBytes = 16;
constexpr size_t KeyBytes = 32;

void Require(int result, const char* what)
{
    if (result != 1)
    {
        throw std::runtime_error(what);
    }
}

const unsigned char* Bytes(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}
}

struct ExpectedDisk::Cipher
{
    EVP_CIPHER_CTX* Context = EVP_CIPHER_CTX_new();
    ~Cipher() { EVP_CIPHER_CTX_free(Context); }
};

struct Sha256::Digest
{
    EVP_MD_CTX* Context = EVP_MD_CTX_new();
    ~Digest() { EVP_MD_CTX_free(Context); }
};

Key RandomKey()
{
    Key key{std::vector<unsigned char>(KeyBytes), 0};
    Require(RAND_bytes(key.Bytes.data(), KeyBytes), "no random bytes for a key");
    Require(RAND_bytes(&key.Mask, 1), "no random byte for a mask");
    return key;
}

ExpectedDisk::ExpectedDisk(const Key& key) : cipher_(std::make_unique<Cipher>()), mask_(key.Mask)
{
    Require(EVP_EncryptInit_ex(cipher_->Context, EVP_aes_256_ecb(), nullptr, key.Bytes.data(), nullptr), "EVP init");
    Require(EVP_CIPHER_CTX_set_padding(cipher_->Context, 0), "EVP padding");
}

ExpectedDisk::~ExpectedDisk() = default;

std::string ExpectedDisk::Encipher(std::string_view plain)
{
    pending_.append(plain);
    const size_t whole = pending_.size() / BlockBytes * BlockBytes;
    std::string disk(whole + BlockBytes, '\0');
    int written = 0;
    Require(EVP_EncryptUpdate(cipher_->Context, reinterpret_cast<unsigned char*>(disk.data()), &written,
                Bytes(pending_), static_cast<int>(whole)),
        "EVP update");
    disk.resize(static_cast<size_t>(written));
    pending_.erase(0, whole);
    return disk;
}

std::string ExpectedDisk::Finish()
{
    std::string disk = pending_;
    for (char& byte : disk)
    {
        byte = static_cast<char>(byte ^ mask_);
    }
    pending_.clear();
    return disk;
}

Sha256::Sha256() : digest_(std::make_unique<Digest>())
{
    Require(EVP_DigestInit_ex(digest_->Context, EVP_sha256(), nullptr), "SHA-256 init");
}

Sha256::~Sha256() = default;

void Sha256::Add(std::string_view bytes)
{
    Require(EVP_DigestUpdate(digest_->Context, bytes.data(), bytes.size()), "SHA-256 update");
}

std::string Sha256::Hex()
{
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    Require(EVP_DigestFinal_ex(digest_->Context, hash, &length), "SHA-256 final");
    std::string text;
    for (unsigned i = 0; i < length; ++i)
    {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[hash[i] >> 4];
        text += digits[hash[i] & 15];
    }
    return text;
}
}
