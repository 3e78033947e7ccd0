// Base64 over the standard alphabet with "=" padding (RFC 4648), as the
// plug-in writes it inside its nonces.
#ifndef GATEWAY_BASE64_H
#define GATEWAY_BASE64_H

#include <string>

std::string base64Encode(const std::string& bytes);

// False for a length that is not a multiple of four, a character outside the
// alphabet, or padding anywhere but at the end.
bool base64Decode(const std::string& text, std::string& bytes);

#endif  // GATEWAY_BASE64_H
