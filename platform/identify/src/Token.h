// The token record and its signature. Pure functions of a key, the clock
// value handed in and (for sealing) fresh randomness; no global state.
#ifndef IDENTIFY_TOKEN_H
#define IDENTIFY_TOKEN_H

#include <stdint.h>

namespace identify {

constexpr int kKeySize = 32;
constexpr int kKeyIdSize = 8;
constexpr int kNonceSize = 16;
constexpr int kMacSize = 32;
constexpr unsigned char kTokenVersion = 1;

// Field offsets; the layout is described for callers in Identify.h.
constexpr int kVersionOffset = 0;
constexpr int kKeyIdOffset = kVersionOffset + 1;
constexpr int kIssuedOffset = kKeyIdOffset + kKeyIdSize;
constexpr int kExpiresOffset = kIssuedOffset + 8;
constexpr int kNonceOffset = kExpiresOffset + 8;
constexpr int kMacOffset = kNonceOffset + kNonceSize;
constexpr int kTokenSize = kMacOffset + kMacSize;

// The key and the id derived from it, computed once when the key is loaded.
struct KeyMaterial {
    unsigned char key[kKeySize];
    unsigned char keyId[kKeyIdSize];
};

// Derives keyId from key. Returns 0 or IDENTIFY_E_CRYPTO.
int DeriveKeyId(KeyMaterial& material);

// Writes a token of kTokenSize bytes valid from nowMs for lifetimeMs.
// Returns 0, IDENTIFY_E_RANDOM or IDENTIFY_E_CRYPTO.
int SealToken(const KeyMaterial& material, int64_t nowMs, int64_t lifetimeMs, unsigned char* out);

// Returns 0 when the token was issued under this key, is unaltered and has not
// expired at nowMs; otherwise the IDENTIFY_E_* code of the first failed test.
int VerifyToken(const KeyMaterial& material, const unsigned char* token, int length, int64_t nowMs);

}  // namespace identify

#endif  // IDENTIFY_TOKEN_H
