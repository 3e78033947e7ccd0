// The Digest headers of the plug-in, read and written in one place: the user
// name the gateway matches requests by, the fields of an "Authorization" value
// as the raw audio channel reads them, and the challenge's
// "WWW-Authenticate" value. Credentials are never judged here: the gateway's
// filter chain does that with the value the plug-in forwards as it came.
#ifndef HTTPWRAPPER_AUTH_DIGESTHEADER_H
#define HTTPWRAPPER_AUTH_DIGESTHEADER_H

#include <map>
#include <string>

namespace HttpWrapper {

class CHttpHelper;

// Longest quoted name taken; a longer one yields nothing.
const size_t kMaxDigestUserName = 64;

enum DigestUserNameResult {
    USER_NAME_FOUND,
    USER_NAME_ABSENT,    // no key, or no closing quote
    USER_NAME_TOO_LONG,  // more than kMaxDigestUserName characters
};

// The quoted text after the first occurrence of key (such as `username="`,
// found anywhere in the value), copied with a bound that counts the
// terminating zero, so that the name loses its last character ("admin" gives
// "admi"): docs/compatibility.md, Q2 and Q3. The gateway compares exactly this text, so
// both the standard and the raw channel take it here. On USER_NAME_FOUND, name
// holds the cut name (without padding).
DigestUserNameResult CutDigestUserName(const std::string& authorization, const char* key, std::string& name);

// The text after the first "Authorization: " (exact case, one blank) of a raw
// request head, found anywhere in it, up to the line's end; false when there
// is none.
bool FindAuthorizationLine(const std::string& head, std::string& value);

// The parameters of a Digest value, as the raw channel's clients have always
// been read (Q5): what follows the value's first blank is split on ",", and each
// "name=value" item gives name -> value, with blanks and tabs trimmed around
// both and quotes around the value (a "," inside quotes splits too). Items
// without "=" are passed over; a name already in fields keeps its value.
void ReadDigestFields(const std::string& authorization, std::map<std::string, std::string>& fields);

// The "WWW-Authenticate" value of a challenge, with a fresh nonce and the
// realm the gateway configures ("AuthRealm"). Not cut to any buffer: each
// channel bounds its own line.
std::string MakeDigestChallenge(const CHttpHelper& helper);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_AUTH_DIGESTHEADER_H
