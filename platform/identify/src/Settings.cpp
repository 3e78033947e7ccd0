#include "Settings.h"

#include <stdlib.h>

#include "identify/Identify.h"

namespace identify {

const char* KeyFilePath()
{
    const char* path = getenv("IDENTIFY_KEY_FILE");
    return (path != nullptr && path[0] != '\0') ? path : kDefaultKeyFile;
}

namespace {

// Parses "300", "2.5", "0.001" into milliseconds. Hand-written rather than
// strtod: the host process may have switched to a locale whose decimal point
// is not '.'.
bool ParseSeconds(const char* text, int64_t* ms)
{
    const char* at = text;
    int64_t whole = 0;
    int wholeDigits = 0;
    for (; *at >= '0' && *at <= '9'; ++at, ++wholeDigits) {
        whole = whole * 10 + (*at - '0');
        if (whole > kMaxLifetimeMs / 1000) {
            return false;
        }
    }
    int64_t fraction = 0;
    int fractionDigits = 0;
    if (*at == '.') {
        for (++at; *at >= '0' && *at <= '9'; ++at, ++fractionDigits) {
            if (fractionDigits == 3) {
                return false;  // finer than a millisecond is not kept; refuse rather than round
            }
            fraction = fraction * 10 + (*at - '0');
        }
        if (fractionDigits == 0) {
            return false;
        }
    }
    if (*at != '\0' || wholeDigits == 0) {
        return false;
    }
    for (int i = fractionDigits; i < 3; ++i) {
        fraction *= 10;
    }
    const int64_t total = whole * 1000 + fraction;
    if (total <= 0 || total > kMaxLifetimeMs) {
        return false;
    }
    *ms = total;
    return true;
}

}  // namespace

int TokenLifetimeMs(int64_t* lifetimeMs)
{
    const char* text = getenv("IDENTIFY_TOKEN_TTL");
    if (text == nullptr || text[0] == '\0') {
        *lifetimeMs = kDefaultLifetimeMs;
        return 0;
    }
    // A value that does not parse stops the start: silently issuing tokens
    // with another lifetime than the one configured would be worse.
    return ParseSeconds(text, lifetimeMs) ? 0 : IDENTIFY_E_CONFIG;
}

}  // namespace identify
