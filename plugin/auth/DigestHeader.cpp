#include "auth/DigestHeader.h"

#include <stdio.h>
#include <string.h>

#include <vector>

#include <HttpProtocolWrapper.h>

#include "util/HttpHelper.h"
#include "util/StringUtils.h"

namespace HttpWrapper {

namespace {
const char kAuthorizationLine[] = "Authorization: ";
const char kChallengeFormat[] = "Digest qop=\"auth\", realm=\"%s\", nonce=\"%s\", stale=\"FALSE\"";
const size_t kNonceBuffer = 64;

std::string trim(const std::string& text, const char* characters)
{
    size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = text.find_last_not_of(characters);
    return text.substr(first, last - first + 1);
}
}  // namespace

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

bool FindAuthorizationLine(const std::string& head, std::string& value)
{
    size_t start = head.find(kAuthorizationLine);
    if (start == std::string::npos) {
        return false;
    }
    start += sizeof kAuthorizationLine - 1;
    size_t end = head.find("\r\n", start);
    value = head.substr(start, end == std::string::npos ? std::string::npos : end - start);
    return true;
}

void ReadDigestFields(const std::string& authorization, std::map<std::string, std::string>& fields)
{
    size_t blank = authorization.find(' ');
    std::vector<std::string> items;
    Split(blank == std::string::npos ? std::string() : authorization.substr(blank + 1), std::vector<std::string>{","},
          items, -1);
    for (const std::string& item : items) {
        size_t equals = item.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        std::string name = trim(item.substr(0, equals), " \t");
        std::string fieldValue = trim(trim(item.substr(equals + 1), " \t"), "\"");
        fields.insert(std::make_pair(name, fieldValue));
    }
}

std::string MakeDigestChallenge(const CHttpHelper& helper)
{
    char nonce[kNonceBuffer];
    memset(nonce, 0, sizeof nonce);
    helper.CreateNonce(nonce, static_cast<int>(sizeof nonce));  // a failure leaves the nonce empty
    std::string realm;
    IProtocolWrapperUtilitySink* sink = __atomic_load_n(&g_pHttpProtocolWrapperUtilitySink, __ATOMIC_ACQUIRE);
    if (sink != nullptr) {
        sink->GetConfigValue("AuthRealm", realm);
    }
    // Sized for the whole text, so that no realm is cut here.
    std::string challenge(sizeof kChallengeFormat + strlen(realm.c_str()) + strlen(nonce), '\0');
    int length = snprintf(&challenge[0], challenge.size(), kChallengeFormat, realm.c_str(), nonce);
    challenge.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return challenge;
}

}  // namespace HttpWrapper
