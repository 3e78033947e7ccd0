#include "DigestCredentials.h"

#include <cctype>
#include <strings.h>

namespace {

void skipBlanks(const std::string& text, size_t& at)
{
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) {
        ++at;
    }
}

bool isTokenChar(char c)
{
    return c > ' ' && c < 127 && c != ',' && c != '=' && c != '"';
}

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace

std::string DigestCredentials::get(const std::string& name) const
{
    auto found = params.find(name);
    return found == params.end() ? std::string() : found->second;
}

bool parseDigestCredentials(const std::string& header, DigestCredentials& credentials, std::string& error)
{
    credentials.params.clear();
    size_t at = 0;
    skipBlanks(header, at);
    if (header.size() < at + 7 || strncasecmp(header.c_str() + at, "Digest", 6) != 0 ||
        (header[at + 6] != ' ' && header[at + 6] != '\t')) {
        error = "not Digest credentials";
        return false;
    }
    at += 6;
    while (true) {
        skipBlanks(header, at);
        while (at < header.size() && header[at] == ',') {
            ++at;
            skipBlanks(header, at);
        }
        if (at >= header.size()) {
            break;
        }
        size_t nameStart = at;
        while (at < header.size() && isTokenChar(header[at])) {
            ++at;
        }
        std::string name = lowerCase(header.substr(nameStart, at - nameStart));
        skipBlanks(header, at);
        if (name.empty() || at >= header.size() || header[at] != '=') {
            error = "malformed parameter near offset " + std::to_string(nameStart);
            return false;
        }
        ++at;
        skipBlanks(header, at);
        std::string value;
        if (at < header.size() && header[at] == '"') {
            ++at;
            bool closed = false;
            while (at < header.size()) {
                char c = header[at++];
                if (c == '\\' && at < header.size()) {
                    value += header[at++];
                } else if (c == '"') {
                    closed = true;
                    break;
                } else {
                    value += c;
                }
            }
            if (!closed) {
                error = "unterminated quoted value of " + name;
                return false;
            }
        } else {
            size_t valueStart = at;
            while (at < header.size() && isTokenChar(header[at])) {
                ++at;
            }
            value = header.substr(valueStart, at - valueStart);
        }
        if (!credentials.params.emplace(name, value).second) {
            error = "parameter " + name + " given twice";
            return false;
        }
        skipBlanks(header, at);
        if (at < header.size() && header[at] != ',') {
            error = "missing comma after " + name;
            return false;
        }
    }
    return true;
}
