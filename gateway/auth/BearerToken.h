// The admin endpoint's bearer token: what a usable one looks like, reading it
// from a file, and checking a request's Authorization header against it.
#ifndef GATEWAY_BEARER_TOKEN_H
#define GATEWAY_BEARER_TOKEN_H

#include <string>

// Why a token is refused, as the configuration error says it.
extern const char* const kBearerTokenRule;

// 16 to 256 characters of the token alphabet (RFC 6750: letters, digits, "-._~+/" and trailing "=").
bool isUsableBearerToken(const std::string& token);

// The token in the file: its first line, without the line end. False with a reason (naming the file)
// when it cannot be read or is not usable.
bool readBearerTokenFile(const std::string& path, std::string& token, std::string& error);

// Whether an Authorization header value is "Bearer <token>" (the scheme in any case), compared in
// constant time so that a guess learns nothing from how long the answer took.
bool bearerAuthorizationMatches(const std::string& header, const std::string& token);

#endif  // GATEWAY_BEARER_TOKEN_H
