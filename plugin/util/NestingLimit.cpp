#include "util/NestingLimit.h"

#include <cctype>
#include <cstring>

namespace HttpWrapper {

namespace {

// The position after the first occurrence of token at or after from, or end.
size_t skipPast(const char* text, size_t from, size_t end, const char* token)
{
    const size_t tokenLength = strlen(token);
    for (size_t at = from; at + tokenLength <= end; ++at) {
        if (memcmp(text + at, token, tokenLength) == 0) {
            return at + tokenLength;
        }
    }
    return end;
}

bool startsWith(const char* text, size_t at, size_t end, const char* token)
{
    const size_t tokenLength = strlen(token);
    return at + tokenLength <= end && memcmp(text + at, token, tokenLength) == 0;
}

}  // namespace

bool JsonNestingWithin(const char* text, size_t length, int limit)
{
    int depth = 0;
    for (size_t at = 0; at < length; ++at) {
        const char c = text[at];
        if (c == '"') {
            for (++at; at < length && text[at] != '"'; ++at) {
                if (text[at] == '\\') {
                    ++at;  // the escaped character, a quote among them
                }
            }
        } else if (c == '/' && at + 1 < length && text[at + 1] == '/') {
            at = skipPast(text, at + 2, length, "\n") - 1;
        } else if (c == '/' && at + 1 < length && text[at + 1] == '*') {
            at = skipPast(text, at + 2, length, "*/") - 1;
        } else if (c == '{' || c == '[') {
            if (++depth > limit) {
                return false;
            }
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

bool XmlNestingWithin(const char* text, size_t length, int limit)
{
    // The markup is told apart as the XML library tells it: a scanner that saw
    // less nesting than the parser would let a deep document through.
    int depth = 0;
    for (size_t at = 0; at < length; ++at) {
        if (text[at] != '<') {
            continue;
        }
        const char next = at + 1 < length ? text[at + 1] : '\0';
        if (startsWith(text, at, length, "<!--")) {
            at = skipPast(text, at + 4, length, "-->") - 1;
        } else if (startsWith(text, at, length, "<![CDATA[")) {
            at = skipPast(text, at + 9, length, "]]>") - 1;
        } else if (next == '/') {
            at = skipPast(text, at + 2, length, ">") - 1;
            if (depth > 0) {
                --depth;
            }
        } else if (isalpha(static_cast<unsigned char>(next)) || next == '_') {
            // A start tag ends at the first '>' outside a quoted attribute value;
            // a value is quoted only when the quote follows its '='.
            size_t end = at + 1;
            char quote = 0;
            char previous = 0;
            for (; end < length && (quote != 0 || text[end] != '>'); ++end) {
                const char c = text[end];
                if (quote != 0) {
                    quote = c == quote ? 0 : quote;
                } else if ((c == '"' || c == '\'') && previous == '=') {
                    quote = c;
                }
                if (!isspace(static_cast<unsigned char>(c))) {
                    previous = c;
                }
            }
            const bool empty = end < length && text[end - 1] == '/';
            if (!empty && ++depth > limit) {
                return false;
            }
            at = end;
        } else {
            // Declarations, processing instructions and anything unknown end at
            // the first '>'.
            at = skipPast(text, at + 1, length, ">") - 1;
        }
    }
    return true;
}

}  // namespace HttpWrapper
