// The Digest credentials of an HTTP request, as the plug-in forwards them: the
// raw value of the client's "Authorization" header.
#ifndef GATEWAY_DIGEST_CREDENTIALS_H
#define GATEWAY_DIGEST_CREDENTIALS_H

#include <map>
#include <string>

struct DigestCredentials {
    // Parameter names in lower case; values without their quotes.
    std::map<std::string, std::string> params;

    std::string get(const std::string& name) const;
    bool has(const std::string& name) const { return params.count(name) != 0; }
};

// Parses `Digest name=value, name="quoted, value", ...`. False with a reason
// for another scheme, a repeated parameter or broken syntax.
bool parseDigestCredentials(const std::string& header, DigestCredentials& credentials, std::string& error);

#endif  // GATEWAY_DIGEST_CREDENTIALS_H
