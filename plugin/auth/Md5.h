// RFC 1321 MD5 over a caller-owned context, computed by the process's crypto
// library. Our functions live in namespace HttpWrapper so they never clash
// with the crypto library's own MD5_* symbols.
#ifndef HTTPWRAPPER_AUTH_MD5_H
#define HTTPWRAPPER_AUTH_MD5_H

#include <cstddef>

typedef struct evp_md_ctx_st EVP_MD_CTX;

namespace HttpWrapper {

// The context owns the crypto library's digest state; it is released when the
// context goes out of scope, so an abandoned digest leaks nothing. One
// context may be reused: MD5_init starts over.
struct tagMD5Context {
    tagMD5Context();
    ~tagMD5Context();
    tagMD5Context(const tagMD5Context&) = delete;
    tagMD5Context& operator=(const tagMD5Context&) = delete;

    EVP_MD_CTX* pDigest;
};

const int MD5_DIGEST_SIZE = 16;

// Each returns 0, or -1 when the crypto library failed (or an argument is
// null); after a failure the context must be started again with MD5_init.
int MD5_init(tagMD5Context* context);
int MD5_update(tagMD5Context* context, const void* data, std::size_t length);
int MD5_fini(unsigned char digest[MD5_DIGEST_SIZE], tagMD5Context* context);

const int MD5_HEX_SIZE = MD5_DIGEST_SIZE * 2 + 1;  // 32 digits and the terminator

// The lower-case hexadecimal digest of data written into out; the reentrant
// form of MD5_sign. Returns 0, or -1 (out then holds the empty string).
int MD5_hex(const void* data, std::size_t length, char out[MD5_HEX_SIZE]);

// The lower-case hexadecimal digest (32 characters) of data. The text lives in
// one static buffer shared by every caller: it is overwritten by the next call
// and the function must not run on two threads at once. An empty string when
// the digest could not be computed.
const char* MD5_sign(const void* data, std::size_t length);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_AUTH_MD5_H
