#include "auth/BearerToken.h"

#include <openssl/crypto.h>
#include <strings.h>

#include <fstream>

const char* const kBearerTokenRule = "must be 16 to 256 characters of letters, digits and -._~+/ (then = at the end)";

bool isUsableBearerToken(const std::string& token)
{
    if (token.size() < 16 || token.size() > 256) {
        return false;
    }
    const size_t padding = token.find_last_not_of('=') + 1;
    for (size_t i = 0; i < padding; ++i) {
        const char c = token[i];
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                             c == '.' || c == '_' || c == '~' || c == '+' || c == '/';
        if (!allowed) {
            return false;
        }
    }
    return padding > 0;
}

bool readBearerTokenFile(const std::string& path, std::string& token, std::string& error)
{
    std::ifstream file(path);
    if (!file) {
        error = path + " cannot be read";
        return false;
    }
    std::getline(file, token);
    if (!token.empty() && token.back() == '\r') {
        token.pop_back();
    }
    if (!isUsableBearerToken(token)) {
        error = "the token in " + path + " " + kBearerTokenRule;
        return false;
    }
    return true;
}

bool bearerAuthorizationMatches(const std::string& header, const std::string& token)
{
    static const char kScheme[] = "Bearer ";
    const size_t schemeLength = sizeof kScheme - 1;
    if (token.empty() || header.size() != schemeLength + token.size() ||
        strncasecmp(header.c_str(), kScheme, schemeLength) != 0) {
        return false;
    }
    return CRYPTO_memcmp(header.data() + schemeLength, token.data(), token.size()) == 0;
}
