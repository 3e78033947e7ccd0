#include "DigestCredentials.h"

#include <algorithm>
#include <cstring>

#include "netutils/DigestParams.h"

namespace netutils {

namespace {

struct Field {
    const char* key;
    size_t offset;  // in the request parameter block
    size_t size;
};

// The credential fields the owner checks; other parameters (qop, nc, cnonce, ...) are skipped.
const Field kFields[] = {
    {"username", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szUserName), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szUserName)},
    {"realm", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szRealm), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szRealm)},
    {"nonce", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szNonce), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szNonce)},
    {"uri", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szUri), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szUri)},
    {"response", offsetof(NET_HTTPSERVER_REQUEST_PARAM, szResponse), sizeof(NET_HTTPSERVER_REQUEST_PARAM::szResponse)},
};

}  // namespace

void parseDigestCredentials(const std::string& authorization, NET_HTTPSERVER_REQUEST_PARAM& block)
{
    std::map<std::string, std::string> params;
    std::string fault;
    // Lenient on purpose: the owner forwards the credentials for the gateway to
    // judge, so whatever could be read is filled in and a fault is not ours to refuse.
    if (!parseDigestParams(authorization, params, fault)) {
        return;
    }
    for (const Field& field : kFields) {
        auto found = params.find(field.key);
        if (found == params.end()) {
            continue;
        }
        char* out = reinterpret_cast<char*>(&block) + field.offset;
        const size_t length = std::min(found->second.size(), field.size - 1);
        memcpy(out, found->second.data(), length);
        out[length] = '\0';
    }
}

}  // namespace netutils
