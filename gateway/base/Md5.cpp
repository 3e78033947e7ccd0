#include "base/Md5.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

std::string md5Hex(const std::string& text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr)) {
        return std::string();
    }
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 0x0f];
    }
    return hex;
}

bool constantTimeEquals(const std::string& a, const std::string& b)
{
    // The length of a Digest response is public (32 digits); only the content is secret.
    if (a.size() != b.size()) {
        return false;
    }
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}
