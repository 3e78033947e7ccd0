#include "auth/DigestAuthenticator.h"

#include <cctype>
#include <strings.h>

#include <cstdlib>

#include "auth/DigestCredentials.h"
#include "base/Md5.h"
#include "auth/PluginNonce.h"
#include "base/TextHelpers.h"

namespace {

AuthDecision refuse(const std::string& user, const std::string& reason)
{
    AuthDecision decision;
    decision.user = user;
    decision.reason = reason;
    return decision;
}

}  // namespace

std::string digestResponse(const std::string& ha1, const std::string& method, const std::string& uri,
                           const std::string& nonce, const std::string& nc, const std::string& cnonce,
                           const std::string& qop)
{
    std::string ha2 = md5Hex(method + ":" + uri);
    if (qop.empty()) {
        return md5Hex(ha1 + ":" + nonce + ":" + ha2);
    }
    return md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":" + qop + ":" + ha2);
}

DigestAuthenticator::DigestAuthenticator(std::string realm, std::map<std::string, std::string> passwords,
                                         int64_t nonceLifetimeSeconds, std::function<int64_t()> now, int64_t startedAt)
    : m_realm(std::move(realm)),
      m_passwords(std::move(passwords)),
      m_nonceLifetimeSeconds(nonceLifetimeSeconds),
      m_now(std::move(now)),
      m_startedAt(startedAt)
{
}

AuthDecision DigestAuthenticator::verify(const std::string& method, const std::string& authorization,
                                         const std::string& requestTarget) const
{
    if (authorization.empty()) {
        return refuse("", "no credentials");
    }
    DigestCredentials credentials;
    std::string error;
    if (!parseDigestCredentials(authorization, credentials, error)) {
        return refuse("", "unreadable credentials: " + error);
    }
    const std::string user = credentials.get("username");
    for (const char* required : {"username", "realm", "nonce", "uri", "response"}) {
        if (!credentials.has(required)) {
            return refuse(user, std::string("credentials without ") + required);
        }
    }
    if (credentials.get("realm") != m_realm) {
        return refuse(user, "realm \"" + credentials.get("realm") + "\" is not ours");
    }
    if (credentials.has("algorithm") && strcasecmp(credentials.get("algorithm").c_str(), "MD5") != 0) {
        return refuse(user, "algorithm " + credentials.get("algorithm") + " not supported");
    }
    const std::string qop = credentials.get("qop");
    if (qop != "auth") {
        return refuse(user, qop.empty() ? "no qop=auth (a header without a count could be replayed)"
                                        : "qop " + qop + " not supported");
    }
    const std::string nc = credentials.get("nc");
    if (nc.size() != 8 || !isHexText(nc, 0, 8) || credentials.get("cnonce").empty()) {
        return refuse(user, "qop=auth without a valid nc and cnonce");
    }
    // Byte for byte: a "uri" without the query, or with more, would let one
    // response stand for other requests.
    if (credentials.get("uri") != requestTarget) {
        return refuse(user,
                      "uri \"" + credentials.get("uri") + "\" is not the request target \"" + requestTarget + "\"");
    }
    const std::string nonce = credentials.get("nonce");
    int64_t createdAt = 0;
    if (!decodePluginNonceTime(nonce, createdAt)) {
        return refuse(user, "nonce not issued here");
    }
    if (createdAt < m_startedAt) {
        return refuse(user, "nonce from before this gateway started");
    }
    if (!isNonceFresh(createdAt, m_now(), m_nonceLifetimeSeconds)) {
        return refuse(user, "nonce expired");
    }
    bool known = false;
    std::string password;
    {
        std::lock_guard<std::mutex> guard(m_passwordLock);
        auto account = m_passwords.find(user);
        known = account != m_passwords.end();
        password = known ? account->second : std::string();
    }
    // An unknown user costs the same work as a wrong password, so timing tells nothing.
    const std::string ha1 = md5Hex(user + ":" + m_realm + ":" + password);
    const std::string expected =
        digestResponse(ha1, method, credentials.get("uri"), nonce, nc, credentials.get("cnonce"), qop);
    const std::string given = lowerCase(credentials.get("response"));
    bool matches = constantTimeEquals(expected, given);
    if (!known || !matches) {
        AuthDecision guess = refuse(user, known ? "wrong password" : "unknown user");
        guess.guessed = true;
        return guess;
    }
    // Counted only once the response is proven: a stranger cannot use up a nonce.
    if (!takeNonceCount(nonce, createdAt, static_cast<uint32_t>(strtoul(nc.c_str(), nullptr, 16)))) {
        return refuse(user, "nc " + nc + " was used with this nonce already (a replay)");
    }
    AuthDecision decision;
    decision.accepted = true;
    decision.user = user;
    return decision;
}

void DigestAuthenticator::replacePasswords(std::map<std::string, std::string> passwords)
{
    std::lock_guard<std::mutex> guard(m_passwordLock);
    m_passwords.swap(passwords);
}

bool DigestAuthenticator::passwordOf(const std::string& user, std::string& password) const
{
    std::lock_guard<std::mutex> guard(m_passwordLock);
    const auto found = m_passwords.find(user);
    if (found == m_passwords.end()) {
        return false;
    }
    password = found->second;
    return true;
}

bool DigestAuthenticator::takeNonceCount(const std::string& nonce, int64_t createdAt, uint32_t nc) const
{
    std::lock_guard<std::mutex> guard(m_nonceLock);
    const int64_t now = m_now();
    for (auto it = m_nonceUses.begin(); it != m_nonceUses.end();) {
        it = isNonceFresh(it->second.createdAt, now, m_nonceLifetimeSeconds) ? std::next(it) : m_nonceUses.erase(it);
    }
    auto found = m_nonceUses.find(nonce);
    if (found != m_nonceUses.end()) {
        NonceUse& use = found->second;
        if (nc > use.highestCount) {
            const uint32_t step = nc - use.highestCount;
            use.seen = step >= kCountWindow ? std::bitset<kCountWindow>() : use.seen << step;
            use.highestCount = nc;
            use.seen.set(0);
            return true;
        }
        const uint32_t below = use.highestCount - nc;
        if (below >= kCountWindow || use.seen.test(below)) {
            return false;  // seen already, or too old to tell
        }
        use.seen.set(below);
        return true;
    }
    if (m_nonceUses.size() >= kMaxRememberedNonces) {
        auto oldest = m_nonceUses.begin();
        for (auto it = m_nonceUses.begin(); it != m_nonceUses.end(); ++it) {
            oldest = it->second.createdAt < oldest->second.createdAt ? it : oldest;
        }
        m_nonceUses.erase(oldest);
    }
    NonceUse& use = m_nonceUses[nonce];
    use.createdAt = createdAt;
    use.highestCount = nc;
    use.seen.set(0);
    return true;
}
