// Verifies the Digest credentials that the plug-in forwards with every
// download: RFC 7616 with MD5 and qop=auth, and the RFC 2069 form without qop
// that older clients still send. The nonce must be one the plug-in made
// recently (see PluginNonce.h).
#ifndef GATEWAY_DIGEST_AUTHENTICATOR_H
#define GATEWAY_DIGEST_AUTHENTICATOR_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>

struct AuthDecision {
    bool accepted = false;
    std::string user;    // as the client named it, also when refused
    std::string reason;  // why it was refused, for the log
};

// response = MD5(HA1:nonce:nc:cnonce:qop:HA2), or MD5(HA1:nonce:HA2) when qop is empty,
// with HA2 = MD5(method:uri).
std::string digestResponse(const std::string& ha1, const std::string& method, const std::string& uri,
                           const std::string& nonce, const std::string& nc, const std::string& cnonce,
                           const std::string& qop);

class DigestAuthenticator {
public:
    // passwords: user name to password. now: seconds since the epoch.
    DigestAuthenticator(std::string realm, std::map<std::string, std::string> passwords,
                        int64_t nonceLifetimeSeconds, std::function<int64_t()> now);

    // method: the HTTP method of the request; authorization: the raw header value.
    AuthDecision verify(const std::string& method, const std::string& authorization) const;

private:
    std::string m_realm;
    std::map<std::string, std::string> m_passwords;
    int64_t m_nonceLifetimeSeconds;
    std::function<int64_t()> m_now;
};

#endif  // GATEWAY_DIGEST_AUTHENTICATOR_H
