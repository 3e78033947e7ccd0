// Base64 over the standard alphabet, without line breaks. The six functions are
// part of the plug-in's exported helper set (declared for the gateway in
// HttpProtocolWrapper.h) and are plain C functions:
//
// - base64_encode / base64_decode_ex / base64_decode / FreeEncoder: the strict
//   codec. The encoder allocates its output (released with FreeEncoder); the
//   decoders reject malformed quanta with -1 and need zero-terminated input.
//   The Digest nonce and the identity-token adapter use this family.
// - Base64Encode / Base64Decode: the lenient codec on caller buffers. The
//   decoder skips every character outside the alphabet and never fails.
//
// The plug-in writes its own codec, although the reference gateway uses the
// crypto library's: the gateway calls these exported functions by name.
#ifndef HTTPWRAPPER_UTIL_BASE64_H
#define HTTPWRAPPER_UTIL_BASE64_H

#include <HttpProtocolWrapper.h>

#endif  // HTTPWRAPPER_UTIL_BASE64_H
