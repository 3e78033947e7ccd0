#include "Token.h"

#include <string.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "identify/Identify.h"

namespace identify {

namespace {

const char kKeyIdLabel[] = "identify key id";

void PutInt64(unsigned char* at, int64_t value)
{
    uint64_t bits = static_cast<uint64_t>(value);
    for (int i = 7; i >= 0; --i) {
        at[i] = static_cast<unsigned char>(bits & 0xFF);
        bits >>= 8;
    }
}

int64_t GetInt64(const unsigned char* at)
{
    uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) {
        bits = (bits << 8) | at[i];
    }
    return static_cast<int64_t>(bits);
}

bool Mac(const unsigned char* key, const unsigned char* data, size_t length, unsigned char mac[kMacSize])
{
    unsigned int macLength = 0;
    return HMAC(EVP_sha256(), key, kKeySize, data, length, mac, &macLength) != nullptr &&
           macLength == static_cast<unsigned int>(kMacSize);
}

}  // namespace

int DeriveKeyId(KeyMaterial& material)
{
    // A MAC of a fixed label rather than a plain hash of the key: the id is
    // public (it travels in every token) and must say nothing about the key.
    unsigned char mac[kMacSize];
    if (!Mac(material.key, reinterpret_cast<const unsigned char*>(kKeyIdLabel), sizeof(kKeyIdLabel) - 1, mac)) {
        return IDENTIFY_E_CRYPTO;
    }
    memcpy(material.keyId, mac, kKeyIdSize);
    return 0;
}

int SealToken(const KeyMaterial& material, int64_t nowMs, int64_t lifetimeMs, unsigned char* out)
{
    out[kVersionOffset] = kTokenVersion;
    memcpy(out + kKeyIdOffset, material.keyId, kKeyIdSize);
    PutInt64(out + kIssuedOffset, nowMs);
    PutInt64(out + kExpiresOffset, nowMs + lifetimeMs);
    if (RAND_bytes(out + kNonceOffset, kNonceSize) != 1) {
        return IDENTIFY_E_RANDOM;
    }
    if (!Mac(material.key, out, kMacOffset, out + kMacOffset)) {
        return IDENTIFY_E_CRYPTO;
    }
    return 0;
}

int VerifyToken(const KeyMaterial& material, const unsigned char* token, int length, int64_t nowMs)
{
    if (length != kTokenSize || token[kVersionOffset] != kTokenVersion) {
        return IDENTIFY_E_MALFORMED;
    }
    // The key id only sorts out tokens of another key early, with a clearer
    // code; the MAC below is what protects every byte, the id included.
    if (memcmp(token + kKeyIdOffset, material.keyId, kKeyIdSize) != 0) {
        return IDENTIFY_E_WRONG_KEY;
    }
    unsigned char expected[kMacSize];
    if (!Mac(material.key, token, kMacOffset, expected)) {
        return IDENTIFY_E_CRYPTO;
    }
    if (CRYPTO_memcmp(expected, token + kMacOffset, kMacSize) != 0) {
        return IDENTIFY_E_BAD_SIGNATURE;
    }
    // Read only after the MAC matched: from here on the times are our own.
    if (nowMs >= GetInt64(token + kExpiresOffset)) {
        return IDENTIFY_E_EXPIRED;
    }
    return 0;
}

}  // namespace identify
