// Small text helpers the gateway's credential and nonce code share.
#ifndef GATEWAY_TEXT_HELPERS_H
#define GATEWAY_TEXT_HELPERS_H

#include <cctype>
#include <string>

inline std::string lowerCase(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// The value of one hexadecimal digit, or -1.
inline int hexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// True when [from, to) of text is one or more hexadecimal digits.
inline bool isHexText(const std::string& text, size_t from, size_t to)
{
    if (from >= to || to > text.size()) {
        return false;
    }
    for (size_t i = from; i < to; ++i) {
        if (hexDigit(text[i]) < 0) {
            return false;
        }
    }
    return true;
}

#endif  // GATEWAY_TEXT_HELPERS_H
