#include "auth/DigestHeader.h"

#include <stdio.h>
#include <string.h>

namespace HttpWrapper {

DigestUserNameResult CutDigestUserName(const std::string& authorization, const char* key, std::string& name)
{
    size_t found = authorization.find(key);
    if (found == std::string::npos) {
        return USER_NAME_ABSENT;
    }
    size_t start = found + strlen(key);
    size_t end = authorization.find('"', start);
    if (end == std::string::npos) {
        return USER_NAME_ABSENT;
    }
    size_t length = end - start;
    if (length > kMaxDigestUserName) {
        return USER_NAME_TOO_LONG;
    }
    char copy[kMaxDigestUserName + 1];
    memset(copy, 0, sizeof copy);
    if (length > 0) {
        snprintf(copy, length, "%s", authorization.substr(start, length).c_str());
    }
    name = copy;
    return USER_NAME_FOUND;
}

}  // namespace HttpWrapper
