// The identity-token key file, checked before the plug-in starts: the plug-in
// goes on initialising when its identity library fails (it must, for gateways
// that can live without tokens), so a gateway that turned tokens on checks
// the key itself and refuses to start with the path named.
#ifndef GATEWAY_IDENTITY_KEY_H
#define GATEWAY_IDENTITY_KEY_H

#include <string>

// The key file the identity library uses: IDENTIFY_KEY_FILE, or its default.
std::string identityKeyPath();

// True when the library can use the key file: a readable 32-byte file, or a
// missing one in a folder where it can create it. False with the reason.
bool checkIdentityKeyFile(const std::string& path, std::string& error);

#endif  // GATEWAY_IDENTITY_KEY_H
