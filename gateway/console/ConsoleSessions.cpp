#include "console/ConsoleSessions.h"

#include <openssl/rand.h>

#include <stdexcept>

#include "base/Md5.h"
#include "base/TextHelpers.h"

ConsoleSessions::ConsoleSessions(int64_t idleSeconds, PasswordLookup passwordOf, std::function<int64_t()> now)
    : m_idleSeconds(idleSeconds), m_passwordOf(std::move(passwordOf)), m_now(now), m_throttle(now)
{
}

ConsoleSessions::SignIn ConsoleSessions::signIn(const std::string& address, const std::string& user,
                                                const std::string& password, std::string& token, std::string& locked)
{
    if (m_throttle.locked(address, user)) {
        return SignIn::kThrottled;
    }
    std::string expected;
    // An unknown user costs the same comparison as a wrong password.
    const bool known = m_passwordOf(user, expected);
    if (!constantTimeEquals(md5Hex(password), md5Hex(known ? expected : std::string("\n"))) || !known) {
        locked = m_throttle.failed(address, user);
        return SignIn::kRefused;
    }
    token = newSessionToken();
    const int64_t now = m_now();
    std::lock_guard<std::mutex> guard(m_lock);
    dropExpired(now);
    while (m_sessions.size() >= kMaxSessions) {
        auto oldest = m_sessions.begin();
        for (auto it = m_sessions.begin(); it != m_sessions.end(); ++it) {
            if (it->second.lastUsed < oldest->second.lastUsed) {
                oldest = it;
            }
        }
        m_sessions.erase(oldest);
    }
    m_sessions[token] = Session{user, now, now};
    return SignIn::kAccepted;
}

bool ConsoleSessions::find(const std::string& token, std::string& user)
{
    if (token.empty()) {
        return false;
    }
    const int64_t now = m_now();
    std::lock_guard<std::mutex> guard(m_lock);
    dropExpired(now);
    const auto found = m_sessions.find(token);
    if (found == m_sessions.end()) {
        return false;
    }
    std::string password;
    if (!m_passwordOf(found->second.user, password)) {
        m_sessions.erase(found);  // the user was removed by a reload
        return false;
    }
    found->second.lastUsed = now;
    user = found->second.user;
    return true;
}

void ConsoleSessions::signOut(const std::string& token)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_sessions.erase(token);
}

size_t ConsoleSessions::size()
{
    std::lock_guard<std::mutex> guard(m_lock);
    dropExpired(m_now());
    return m_sessions.size();
}

void ConsoleSessions::dropExpired(int64_t now)
{
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        const bool expired =
            now - it->second.lastUsed >= m_idleSeconds || now - it->second.createdAt >= kMaxLifetimeSeconds;
        it = expired ? m_sessions.erase(it) : std::next(it);
    }
}

std::string newSessionToken()
{
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        throw std::runtime_error("no random bytes for a session token");
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char byte : bytes) {
        token += kHex[byte >> 4];
        token += kHex[byte & 15];
    }
    return token;
}

std::string sessionCookie(const std::string& token, int64_t maxAgeSeconds, bool secure)
{
    return std::string(kSessionCookieName) + "=" + token + "; Path=/; Max-Age=" + std::to_string(maxAgeSeconds) +
           "; HttpOnly; SameSite=Strict" + (secure ? "; Secure" : "");
}

std::string clearedSessionCookie(bool secure)
{
    return sessionCookie("", 0, secure);
}

std::string cookieValue(const std::string& cookieHeader, const std::string& name)
{
    size_t position = 0;
    while (position < cookieHeader.size()) {
        size_t end = cookieHeader.find(';', position);
        if (end == std::string::npos) {
            end = cookieHeader.size();
        }
        size_t start = cookieHeader.find_first_not_of(' ', position);
        if (start < end) {
            const std::string pair = cookieHeader.substr(start, end - start);
            const size_t equals = pair.find('=');
            if (equals != std::string::npos && pair.compare(0, equals, name) == 0 && equals == name.size()) {
                return pair.substr(equals + 1);
            }
        }
        position = end + 1;
    }
    return "";
}

bool originMatches(const std::string& origin, const std::string& host, bool tls)
{
    return !host.empty() && origin == std::string(tls ? "https://" : "http://") + host;
}

namespace {

// False on a broken %-escape.
bool formDecode(const std::string& text, std::string& decoded)
{
    decoded.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            decoded += ' ';
        } else if (text[i] == '%') {
            if (i + 2 >= text.size() || hexDigit(text[i + 1]) < 0 || hexDigit(text[i + 2]) < 0) {
                return false;
            }
            decoded += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return true;
}

}  // namespace

std::string formField(const std::string& body, const std::string& field)
{
    size_t position = 0;
    while (position <= body.size()) {
        size_t end = body.find('&', position);
        if (end == std::string::npos) {
            end = body.size();
        }
        const std::string pair = body.substr(position, end - position);
        const size_t equals = pair.find('=');
        std::string name, value;
        if (equals != std::string::npos && formDecode(pair.substr(0, equals), name) && name == field) {
            return formDecode(pair.substr(equals + 1), value) ? value : std::string();
        }
        position = end + 1;
    }
    return "";
}
