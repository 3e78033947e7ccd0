// The nonces of the plug-in's Digest challenges. The plug-in makes them as the
// lower-case hexadecimal form of the Base64 text of "<8 hex digits>:<creation
// time in seconds, lower-case hex>", so the gateway can read the creation time
// back and refuse old or forged nonces without keeping any state.
#ifndef GATEWAY_PLUGIN_NONCE_H
#define GATEWAY_PLUGIN_NONCE_H

#include <cstdint>
#include <string>

// Creation time of a nonce in seconds since the epoch; false when the text is
// not a nonce of that form.
bool decodePluginNonceTime(const std::string& nonce, int64_t& createdAt);

// The nonce form, for tests and tools that need one.
std::string encodePluginNonce(uint32_t random, int64_t createdAt);

// A nonce may be used for lifetimeSeconds after its creation; a creation time a
// little in the future is tolerated because the clocks are read on different threads.
bool isNonceFresh(int64_t createdAt, int64_t now, int64_t lifetimeSeconds);

constexpr int64_t kNonceClockSkewSeconds = 5;

#endif  // GATEWAY_PLUGIN_NONCE_H
