// Result codes of the identity-token adapter (IdentifyWrapper_*). Every other
// non-zero result comes from the identity library itself and is passed on.
#ifndef HTTPWRAPPER_AUTH_IDENTITYCODES_H
#define HTTPWRAPPER_AUTH_IDENTITYCODES_H

namespace HttpWrapper {

constexpr int IDW_ERR_NO_TOKEN = static_cast<int>(0x88000001u);    // null or empty token text
constexpr int IDW_ERR_OUT_BUFFER = static_cast<int>(0x88000002u);  // output missing, <= 0 or too small
constexpr int IDW_ERR_NO_MEMORY = static_cast<int>(0x88000003u);   // a temporary buffer could not be allocated
constexpr int IDW_ERR_BAD_BASE64 = static_cast<int>(0x88000004u);  // the token text is not valid Base64
constexpr int IDW_ERR_ENCODE = static_cast<int>(0x88000005u);      // Base64 encoding produced nothing
constexpr int IDW_ERR_TOKENS_OFF = static_cast<int>(0x88000006u);  // Apply while tokens are switched off

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_AUTH_IDENTITYCODES_H
