// The key file: 32 raw bytes shared by every process that issues or checks
// tokens with the same key.
#ifndef IDENTIFY_KEYFILE_H
#define IDENTIFY_KEYFILE_H

#include "Token.h"

namespace identify {

// Reads the key at path. When no file is there, publishes a fresh random key
// first (mode 0600; the missing parent directory, one level only, is created
// with mode 0700) and then reads whatever key the file holds, so that
// processes starting together agree on one key.
// Returns 0, IDENTIFY_E_KEY_FILE or IDENTIFY_E_RANDOM.
int LoadOrCreateKey(const char* path, unsigned char key[kKeySize]);

}  // namespace identify

#endif  // IDENTIFY_KEYFILE_H
