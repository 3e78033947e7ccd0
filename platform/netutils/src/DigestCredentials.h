// The Digest credential fields of an "Authorization" header value.
#ifndef NETUTILS_DIGESTCREDENTIALS_H
#define NETUTILS_DIGESTCREDENTIALS_H

#include "netutils/VQNetUtils.h"

#include <string>

namespace netutils {

// Copies username, realm, nonce, uri and response of a "Digest ..." value into
// the block, each cut to its field. Fields that are absent stay as they are;
// a value of another scheme changes nothing.
void parseDigestCredentials(const std::string& authorization, NET_HTTPSERVER_REQUEST_PARAM& block);

}  // namespace netutils

#endif
