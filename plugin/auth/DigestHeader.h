// The user name the gateway matches requests by, taken from a Digest
// "Authorization" value: the quoted text after a key such as `username="`,
// copied with a bound that counts the terminating zero, so that the name loses
// its last character ("admin" gives "admi"). The gateway compares exactly this
// text, so both the standard and the raw channel take it here.
#ifndef HTTPWRAPPER_AUTH_DIGESTHEADER_H
#define HTTPWRAPPER_AUTH_DIGESTHEADER_H

#include <string>

namespace HttpWrapper {

// Longest quoted name taken; a longer one yields nothing.
const size_t kMaxDigestUserName = 64;

enum DigestUserNameResult {
    USER_NAME_FOUND,
    USER_NAME_ABSENT,    // no key, or no closing quote
    USER_NAME_TOO_LONG,  // more than kMaxDigestUserName characters
};

// On USER_NAME_FOUND, name holds the cut name (without padding).
DigestUserNameResult CutDigestUserName(const std::string& authorization, const char* key, std::string& name);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_AUTH_DIGESTHEADER_H
