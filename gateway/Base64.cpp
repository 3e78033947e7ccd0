#include "Base64.h"

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextet(char c)
{
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

}  // namespace

std::string base64Encode(const std::string& bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        size_t count = bytes.size() - i < 3 ? bytes.size() - i : 3;
        unsigned value = static_cast<unsigned char>(bytes[i]) << 16;
        if (count > 1) {
            value |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        }
        if (count > 2) {
            value |= static_cast<unsigned char>(bytes[i + 2]);
        }
        text += kAlphabet[(value >> 18) & 0x3f];
        text += kAlphabet[(value >> 12) & 0x3f];
        text += count > 1 ? kAlphabet[(value >> 6) & 0x3f] : '=';
        text += count > 2 ? kAlphabet[value & 0x3f] : '=';
    }
    return text;
}

bool base64Decode(const std::string& text, std::string& bytes)
{
    bytes.clear();
    if (text.size() % 4 != 0) {
        return false;
    }
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int padding = 0;
        if (last && text[i + 3] == '=') {
            padding = text[i + 2] == '=' ? 2 : 1;
        }
        unsigned value = 0;
        for (int k = 0; k < 4 - padding; ++k) {
            int bits = sextet(text[i + k]);
            if (bits < 0) {
                return false;
            }
            value |= static_cast<unsigned>(bits) << (18 - 6 * k);
        }
        bytes += static_cast<char>((value >> 16) & 0xff);
        if (padding < 2) {
            bytes += static_cast<char>((value >> 8) & 0xff);
        }
        if (padding < 1) {
            bytes += static_cast<char>(value & 0xff);
        }
    }
    return true;
}
