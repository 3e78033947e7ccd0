#include "app/PluginUrl.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace {

const char kClientKey[] = "&clientIP=";
const char kUserKey[] = "&username=";
const size_t kMaxLoggedText = 64;
const size_t kLongestCopiedUser = 64;

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

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::string pluginUserSuffix(const std::string& user)
{
    // The plug-in copies a name shorter than 65 characters, less its last one,
    // and appends nothing for a longer name.
    if (user.empty() || user.size() >= kLongestCopiedUser + 1) {
        return std::string();
    }
    return kUserKey + user.substr(0, user.size() - 1);
}

bool splitPluginUrl(const std::string& url, const std::string& user, PluginUrl& split, std::string& error)
{
    split = PluginUrl();
    const std::string userSuffix = pluginUserSuffix(user);
    if (!endsWith(url, userSuffix)) {
        error = "the user name the plug-in read is not \"" + forTheLog(user) + "\", whose credentials these are";
        return false;
    }
    const std::string rest = url.substr(0, url.size() - userSuffix.size());
    // The plug-in escapes the forwarded text, so its value holds no "&".
    const size_t key = rest.rfind(kClientKey);
    if (key == std::string::npos || rest.find('&', key + 1) != std::string::npos) {
        error = "the URL does not end with the plug-in's client address";
        return false;
    }
    split.own = rest.substr(0, key);
    split.client = readForwardedClient(rest.substr(key + sizeof kClientKey - 1));
    return true;
}

ForwardedClient readForwardedClient(const std::string& escaped)
{
    ForwardedClient client;
    const std::string forwarded = percentDecoded(escaped);
    std::string first = forwarded.substr(0, forwarded.find(','));
    const size_t from = first.find_first_not_of(" \t");
    const size_t to = first.find_last_not_of(" \t");
    first = from == std::string::npos ? std::string() : first.substr(from, to - from + 1);
    if (isAddress(first)) {
        client.address = first;
    } else if (!forwarded.empty()) {
        client.untrusted = forTheLog(forwarded);
    }
    return client;
}
