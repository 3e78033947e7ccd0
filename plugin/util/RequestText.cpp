#include "util/RequestText.h"

namespace HttpWrapper {

bool IsSafeRequestText(const std::string& text, RequestTextSpaces spaces)
{
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || (byte == ' ' && spaces == SPACES_REFUSED)) {
            return false;
        }
    }
    return true;
}

}  // namespace HttpWrapper
