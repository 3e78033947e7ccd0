#include "auth/PluginNonce.h"

#include <cstdio>

#include "base/Base64.h"
#include "base/TextHelpers.h"

bool decodePluginNonceTime(const std::string& nonce, int64_t& createdAt)
{
    // Far longer than any nonce the plug-in makes; keeps the work bounded.
    if (nonce.empty() || nonce.size() % 2 != 0 || nonce.size() > 128) {
        return false;
    }
    std::string base64;
    for (size_t i = 0; i < nonce.size(); i += 2) {
        int high = hexDigit(nonce[i]);
        int low = hexDigit(nonce[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        base64 += static_cast<char>(high * 16 + low);
    }
    std::string text;
    if (!base64Decode(base64, text)) {
        return false;
    }
    // "<8 hex digits>:<time in hex>"; 15 time digits keep the value positive.
    if (text.size() < 10 || text.size() > 8 + 1 + 15 || text[8] != ':' || !isHexText(text, 0, 8) ||
        !isHexText(text, 9, text.size())) {
        return false;
    }
    int64_t value = 0;
    for (size_t i = 9; i < text.size(); ++i) {
        value = value * 16 + hexDigit(text[i]);
    }
    createdAt = value;
    return true;
}

std::string encodePluginNonce(uint32_t random, int64_t createdAt)
{
    char text[40];
    snprintf(text, sizeof(text), "%08x:%llx", random, static_cast<unsigned long long>(createdAt));
    std::string base64 = base64Encode(text);
    std::string nonce;
    for (unsigned char c : base64) {
        char pair[3];
        snprintf(pair, sizeof(pair), "%02x", c);
        nonce += pair;
    }
    return nonce;
}

bool isNonceFresh(int64_t createdAt, int64_t now, int64_t lifetimeSeconds)
{
    if (createdAt > now + kNonceClockSkewSeconds) {
        return false;
    }
    return now - createdAt <= lifetimeSeconds;
}
