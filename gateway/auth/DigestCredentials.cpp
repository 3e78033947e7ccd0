#include "auth/DigestCredentials.h"

#include <netutils/DigestParams.h>

std::string DigestCredentials::get(const std::string& name) const
{
    auto found = params.find(name);
    return found == params.end() ? std::string() : found->second;
}

bool parseDigestCredentials(const std::string& header, DigestCredentials& credentials, std::string& error)
{
    // The HTTP server library's reader, so that the gateway judges exactly the
    // fields the plug-in saw; the gateway refuses any fault it met.
    if (!netutils::parseDigestParams(header, credentials.params, error)) {
        error = "not Digest credentials";
        return false;
    }
    return error.empty();
}
