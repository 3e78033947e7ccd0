#include "ClientAddress.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace {

const size_t kMaxLoggedText = 64;

// A "%XX" that is not hexadecimal stays as it is: the text is only inspected.
std::string percentDecoded(const std::string& text)
{
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            decoded += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

bool isAddress(const std::string& text)
{
    unsigned char buffer[16];
    return inet_pton(AF_INET, text.c_str(), buffer) == 1 || inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

// Printable, bounded, with control bytes and quotes escaped: safe in one log line.
std::string forTheLog(const std::string& text)
{
    std::string safe;
    for (size_t i = 0; i < text.size() && safe.size() < kMaxLoggedText; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", c);
            safe += escaped;
        } else {
            safe += static_cast<char>(c);
        }
    }
    return text.size() > kMaxLoggedText ? safe + "..." : safe;
}

}  // namespace

std::string splitForwardedClient(const std::string& url, ForwardedClient& client)
{
    static const std::string kKey = "&clientIP=";
    client = ForwardedClient();
    const size_t suffix = url.rfind(kKey);
    if (suffix == std::string::npos) {
        return url;
    }
    // The plug-in escapes the forwarded text, so its value ends at the next "&"
    // (where "&username=" follows); an older plug-in's raw text is cut there too.
    const size_t start = suffix + kKey.size();
    const size_t end = url.find('&', start);
    const std::string forwarded =
        percentDecoded(url.substr(start, end == std::string::npos ? std::string::npos : end - start));
    std::string first = forwarded.substr(0, forwarded.find(','));
    const size_t from = first.find_first_not_of(" \t");
    const size_t to = first.find_last_not_of(" \t");
    first = from == std::string::npos ? std::string() : first.substr(from, to - from + 1);
    if (isAddress(first)) {
        client.address = first;
    } else if (!forwarded.empty()) {
        client.untrusted = forTheLog(forwarded);
    }
    return url.substr(0, suffix);
}
