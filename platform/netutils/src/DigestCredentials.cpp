#include "DigestCredentials.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace netutils {

namespace {

struct Field {
    const char* key;
    size_t offset;  // in the request parameter block
    size_t size;
};

// The credential fields the owner checks; other parameters (qop, nc, cnonce, ...) are skipped.
const Field kFields[] = {
    {"username", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szUserName), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szUserName)},
    {"realm", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szRealm), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szRealm)},
    {"nonce", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szNonce), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szNonce)},
    {"uri", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szUri), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szUri)},
    {"response", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szResponse), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szResponse)},
};

bool isSpace(char c)
{
    return c == ' ' || c == '\t';
}

class Cursor {
public:
    explicit Cursor(const std::string& text) : m_text(text) {}
    bool atEnd() const { return m_pos >= m_text.size(); }
    char peek() const { return m_text[m_pos]; }
    void skip() { ++m_pos; }
    void skipSpaces()
    {
        while (!atEnd() && isSpace(peek())) {
            ++m_pos;
        }
    }
    /* Up to (not including) the first of `stops` or a space. */
    std::string token(const char* stops)
    {
        const size_t start = m_pos;
        while (!atEnd() && !isSpace(peek()) && strchr(stops, peek()) == nullptr) {
            ++m_pos;
        }
        return m_text.substr(start, m_pos - start);
    }
    /* A quoted string after its opening quote; a backslash takes the next character as it is.
     * An unterminated string runs to the end. */
    std::string quoted()
    {
        std::string value;
        while (!atEnd() && peek() != '"') {
            if (peek() == '\\' && m_pos + 1 < m_text.size()) {
                ++m_pos;
            }
            value.push_back(peek());
            ++m_pos;
        }
        if (!atEnd()) {
            ++m_pos;  // closing quote
        }
        return value;
    }
    /* A bare value: up to the next comma, without trailing spaces. */
    std::string bare()
    {
        const size_t start = m_pos;
        while (!atEnd() && peek() != ',') {
            ++m_pos;
        }
        size_t end = m_pos;
        while (end > start && isSpace(m_text[end - 1])) {
            --end;
        }
        return m_text.substr(start, end - start);
    }

private:
    const std::string& m_text;
    size_t m_pos = 0;
};

void store(const std::string& key, const std::string& value, bool (&seen)[sizeof(kFields) / sizeof(kFields[0])],
           NET_HTTPSERVER_REQUEST_PARAM& block)
{
    for (size_t i = 0; i < sizeof(kFields) / sizeof(kFields[0]); ++i) {
        const Field& field = kFields[i];
        // The first occurrence counts, so that a repeated key later in the value cannot replace it.
        if (seen[i] || strcasecmp(key.c_str(), field.key) != 0) {
            continue;
        }
        seen[i] = true;
        char* out = reinterpret_cast<char*>(&block) + field.offset;
        const size_t length = std::min(value.size(), field.size - 1);
        memcpy(out, value.data(), length);
        out[length] = '\0';
        return;
    }
}

}  // namespace

void parseDigestCredentials(const std::string& authorization, NET_HTTPSERVER_REQUEST_PARAM& block)
{
    Cursor cursor(authorization);
    cursor.skipSpaces();
    if (strcasecmp(cursor.token("").c_str(), "Digest") != 0) {
        return;
    }
    bool seen[sizeof(kFields) / sizeof(kFields[0])] = {};
    while (!cursor.atEnd()) {
        cursor.skipSpaces();
        if (!cursor.atEnd() && cursor.peek() == ',') {
            cursor.skip();
            continue;
        }
        const std::string key = cursor.token("=,");
        cursor.skipSpaces();
        if (cursor.atEnd() || cursor.peek() != '=') {
            if (key.empty() && !cursor.atEnd()) {
                cursor.skip();  // a stray character: step over it
            }
            continue;  // an item without a value carries nothing we need
        }
        cursor.skip();
        cursor.skipSpaces();
        std::string value;
        if (!cursor.atEnd() && cursor.peek() == '"') {
            cursor.skip();
            value = cursor.quoted();
        } else {
            value = cursor.bare();
        }
        store(key, value, seen, block);
    }
}

}  // namespace netutils
