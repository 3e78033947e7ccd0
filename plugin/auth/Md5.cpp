#include "auth/Md5.h"

#include <cstdio>

#include <openssl/evp.h>

namespace HttpWrapper {

tagMD5Context::tagMD5Context() : pDigest(nullptr)
{
}

tagMD5Context::~tagMD5Context()
{
    EVP_MD_CTX_free(pDigest);
}

int MD5_init(tagMD5Context* context)
{
    if (context == nullptr) {
        return -1;
    }
    if (context->pDigest == nullptr) {
        context->pDigest = EVP_MD_CTX_new();
        if (context->pDigest == nullptr) {
            return -1;
        }
    }
    return EVP_DigestInit_ex(context->pDigest, EVP_md5(), nullptr) == 1 ? 0 : -1;
}

int MD5_update(tagMD5Context* context, const void* data, std::size_t length)
{
    if (context == nullptr || context->pDigest == nullptr || (data == nullptr && length > 0)) {
        return -1;
    }
    return EVP_DigestUpdate(context->pDigest, data, length) == 1 ? 0 : -1;
}

int MD5_fini(unsigned char digest[MD5_DIGEST_SIZE], tagMD5Context* context)
{
    if (digest == nullptr || context == nullptr || context->pDigest == nullptr) {
        return -1;
    }
    unsigned int size = 0;
    return EVP_DigestFinal_ex(context->pDigest, digest, &size) == 1 && size == MD5_DIGEST_SIZE ? 0 : -1;
}

int MD5_hex(const void* data, std::size_t length, char out[MD5_HEX_SIZE])
{
    if (out == nullptr) {
        return -1;
    }
    out[0] = '\0';
    tagMD5Context context;
    unsigned char digest[MD5_DIGEST_SIZE];
    if (MD5_init(&context) != 0 || MD5_update(&context, data, length) != 0 || MD5_fini(digest, &context) != 0) {
        return -1;
    }
    for (int i = 0; i < MD5_DIGEST_SIZE; ++i) {
        std::snprintf(out + 2 * i, 3, "%02x", digest[i]);
    }
    return 0;
}

const char* MD5_sign(const void* data, std::size_t length)
{
    // One buffer for every caller, by design: callers read the text before
    // the next call and never sign on two threads at once.
    static char s_szHex[MD5_HEX_SIZE];
    MD5_hex(data, length, s_szHex);
    return s_szHex;
}

}  // namespace HttpWrapper
