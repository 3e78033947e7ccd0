#include "util/NestingLimit.h"

namespace HttpWrapper {

size_t CountJsonOpenings(const char* text, size_t length)
{
    size_t count = 0;
    for (size_t at = 0; at < length; ++at) {
        count += (text[at] == '[' || text[at] == '{') ? 1 : 0;
    }
    return count;
}

size_t CountXmlOpenings(const char* text, size_t length)
{
    size_t count = 0;
    for (size_t at = 0; at < length; ++at) {
        count += (text[at] == '<' && (at + 1 == length || text[at + 1] != '/')) ? 1 : 0;
    }
    return count;
}

}  // namespace HttpWrapper
