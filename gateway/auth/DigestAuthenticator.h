// Verifies the Digest credentials that the plug-in forwards with every
// request, as RFC 7616 asks a server to: MD5 with qop=auth (a header without
// qop has no count, so it could be replayed, and is refused); the "uri" equal
// to the request target byte for byte; a nonce of the plug-in's form made
// since this gateway started and within its lifetime (PluginNonce.h); and each
// use of a nonce with an nc of its own, so that a header seen once cannot be
// replayed.
#ifndef GATEWAY_DIGEST_AUTHENTICATOR_H
#define GATEWAY_DIGEST_AUTHENTICATOR_H

#include <bitset>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

struct AuthDecision {
    bool accepted = false;
    std::string user;    // as the client named it, also when refused
    std::string reason;  // why it was refused, for the log
    // The response was checked and wrong (a wrong password or an unknown
    // user): a guess, which the caller's throttling counts.
    bool guessed = false;
};

// response = MD5(HA1:nonce:nc:cnonce:qop:HA2), or MD5(HA1:nonce:HA2) when qop is empty
// (RFC 2069, which clients may still compute, and verify() refuses), with HA2 = MD5(method:uri).
std::string digestResponse(const std::string& ha1, const std::string& method, const std::string& uri,
                           const std::string& nonce, const std::string& nc, const std::string& cnonce,
                           const std::string& qop);

class DigestAuthenticator {
public:
    // passwords: user name to password. now: seconds since the epoch.
    // startedAt: when this gateway started; older nonces are another run's.
    DigestAuthenticator(std::string realm, std::map<std::string, std::string> passwords, int64_t nonceLifetimeSeconds,
                        std::function<int64_t()> now, int64_t startedAt);

    // method: the HTTP method of the request; authorization: the raw header
    // value; requestTarget: the HTTP request's target, which "uri" must equal.
    AuthDecision verify(const std::string& method, const std::string& authorization,
                        const std::string& requestTarget) const;

    // The users a reload read; requests checked from now on use them.
    void replacePasswords(std::map<std::string, std::string> passwords);

    // The password of a user as it stands now (false for an unknown user): the
    // console signs its users in with it and answers challenges as them.
    bool passwordOf(const std::string& user, std::string& password) const;

    // Nonces whose highest nc is remembered at most at once: past it the
    // oldest is forgotten, which only lets that nonce's (already old) headers be
    // replayed until it expires anyway.
    static const size_t kMaxRememberedNonces = 4096;

private:
    // True when nc was not accepted before with this nonce and is not older than
    // the window below the highest; remembers it.
    bool takeNonceCount(const std::string& nonce, int64_t createdAt, uint32_t nc) const;

    std::string m_realm;
    mutable std::mutex m_passwordLock;  // guards m_passwords, replaced whole by a reload
    std::map<std::string, std::string> m_passwords;
    int64_t m_nonceLifetimeSeconds;
    std::function<int64_t()> m_now;
    int64_t m_startedAt;

    // The counts seen of one nonce: the highest, and which of the
    // kCountWindow below it, so that requests a client sends at once on several
    // connections may arrive in any order while none can come twice.
    static const uint32_t kCountWindow = 1024;
    struct NonceUse {
        int64_t createdAt = 0;
        uint32_t highestCount = 0;
        std::bitset<kCountWindow> seen;  // bit i: highestCount - i was accepted
    };
    mutable std::mutex m_nonceLock;  // guards m_nonceUses
    mutable std::map<std::string, NonceUse> m_nonceUses;
};

#endif  // GATEWAY_DIGEST_AUTHENTICATOR_H
