// MD5 as Digest authentication (RFC 7616, algorithm MD5) uses it.
#ifndef GATEWAY_MD5_H
#define GATEWAY_MD5_H

#include <string>

// Lower-case hexadecimal MD5 of the text (32 characters).
std::string md5Hex(const std::string& text);

// Equality of two texts in a time that does not depend on where they differ.
bool constantTimeEquals(const std::string& a, const std::string& b);

#endif  // GATEWAY_MD5_H
