#include "download/RequestOrigin.h"

#include <cstdio>

namespace {

const char kOriginMark[] = "#client=";
const char kUserMark[] = "&user=";

std::string escape(const std::string& text)
{
    std::string escaped;
    for (unsigned char c : text) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
                           c == '_' || c == '.' || c == '~';
        if (plain) {
            escaped += static_cast<char>(c);
        } else {
            char code[4];
            snprintf(code, sizeof code, "%%%02X", c);
            escaped += code;
        }
    }
    return escaped;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string unescape(const std::string& text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            plain += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

}  // namespace

std::string makeFilterUrl(const std::string& url, const RequestOrigin& origin)
{
    return url + kOriginMark + escape(origin.client) + kUserMark + escape(origin.user);
}

RequestOrigin originOfFilterUrl(const std::string& filterUrl)
{
    RequestOrigin origin;
    const size_t mark = filterUrl.rfind(kOriginMark);
    if (mark == std::string::npos) {
        return origin;
    }
    const std::string tail = filterUrl.substr(mark + sizeof kOriginMark - 1);
    const size_t user = tail.find(kUserMark);
    origin.client = unescape(tail.substr(0, user));
    if (user != std::string::npos) {
        origin.user = unescape(tail.substr(user + sizeof kUserMark - 1));
    }
    return origin;
}
