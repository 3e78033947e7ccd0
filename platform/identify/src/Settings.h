// The library's two settings, taken from the environment when it starts.
#ifndef IDENTIFY_SETTINGS_H
#define IDENTIFY_SETTINGS_H

#include <stdint.h>

namespace identify {

// Used when IDENTIFY_KEY_FILE is unset or empty: the usual place of a
// service's persistent state, readable by the service's own user only.
constexpr const char* kDefaultKeyFile = "/var/lib/identify/identify.key";
constexpr int64_t kDefaultLifetimeMs = 300 * 1000;
// Tokens authenticate short exchanges; a week is far past any sensible use.
constexpr int64_t kMaxLifetimeMs = 7 * 24 * 3600 * 1000LL;

// IDENTIFY_KEY_FILE, or the default.
const char* KeyFilePath();

// IDENTIFY_TOKEN_TTL (seconds with up to three decimals) in milliseconds, or
// the default when it is unset or empty. Returns 0 or IDENTIFY_E_CONFIG for a
// value that is not a lifetime.
int TokenLifetimeMs(int64_t* lifetimeMs);

}  // namespace identify

#endif  // IDENTIFY_SETTINGS_H
