#include "netutils/DigestParams.h"

#include <strings.h>

namespace netutils {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// RFC 7230 token characters, less the separators the parameter list uses.
bool isTokenChar(char c)
{
    return c > ' ' && c < 127 && c != ',' && c != '=' && c != '"';
}

class Reader {
public:
    explicit Reader(const std::string& text) : m_text(text) {}

    bool atEnd() const { return m_at >= m_text.size(); }
    char peek() const { return m_text[m_at]; }
    size_t offset() const { return m_at; }
    void skip() { ++m_at; }
    void skipBlanks()
    {
        while (!atEnd() && isBlank(peek())) {
            ++m_at;
        }
    }
    std::string token()
    {
        const size_t start = m_at;
        while (!atEnd() && isTokenChar(peek())) {
            ++m_at;
        }
        return m_text.substr(start, m_at - start);
    }
    // After the opening quote; false when the text ends before the closing one.
    bool quoted(std::string& value)
    {
        while (!atEnd()) {
            char c = m_text[m_at++];
            if (c == '"') {
                return true;
            }
            if (c == '\\' && !atEnd()) {
                c = m_text[m_at++];
            }
            value += c;
        }
        return false;
    }
    void skipToComma()
    {
        while (!atEnd() && peek() != ',') {
            ++m_at;
        }
    }

private:
    const std::string& m_text;
    size_t m_at = 0;
};

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

}  // namespace

bool parseDigestParams(const std::string& value, std::map<std::string, std::string>& params, std::string& error)
{
    params.clear();
    error.clear();
    Reader reader(value);
    reader.skipBlanks();
    if (strcasecmp(reader.token().c_str(), "Digest") != 0 || (!reader.atEnd() && !isBlank(reader.peek()))) {
        return false;
    }
    auto fault = [&error](const std::string& what) {
        if (error.empty()) {
            error = what;
        }
    };
    while (true) {
        reader.skipBlanks();
        while (!reader.atEnd() && reader.peek() == ',') {
            reader.skip();
            reader.skipBlanks();
        }
        if (reader.atEnd()) {
            return true;
        }
        const size_t nameAt = reader.offset();
        const std::string name = lowerCase(reader.token());
        reader.skipBlanks();
        if (name.empty() || reader.atEnd() || reader.peek() != '=') {
            fault("malformed parameter near offset " + std::to_string(nameAt));
            if (name.empty() && !reader.atEnd() && reader.peek() != ',') {
                reader.skip();  // a stray character
            }
            reader.skipToComma();
            continue;
        }
        reader.skip();
        reader.skipBlanks();
        std::string text;
        if (!reader.atEnd() && reader.peek() == '"') {
            reader.skip();
            if (!reader.quoted(text)) {
                fault("unterminated quoted value of " + name);
            }
        } else {
            text = reader.token();
        }
        if (!params.emplace(name, text).second) {
            fault("parameter " + name + " given twice");
        }
        reader.skipBlanks();
        if (!reader.atEnd() && reader.peek() != ',') {
            fault("missing comma after " + name);
        }
    }
}

}  // namespace netutils
