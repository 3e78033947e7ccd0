#include "KeyFile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "identify/Identify.h"

namespace identify {

namespace {

enum class ReadResult { kOk, kMissing, kBad };

bool ReadAll(int fd, unsigned char* buffer, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t got = read(fd, buffer + done, size - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

bool WriteAll(int fd, const unsigned char* buffer, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t put = write(fd, buffer + done, size - done);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return true;
}

ReadResult ReadKey(const char* path, unsigned char key[kKeySize])
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? ReadResult::kMissing : ReadResult::kBad;
    }
    // Exactly the key's size: a truncated or padded file is a damaged key,
    // never something to guess a key from.
    struct stat info;
    const bool ok =
        fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size == kKeySize && ReadAll(fd, key, kKeySize);
    close(fd);
    return ok ? ReadResult::kOk : ReadResult::kBad;
}

// One level only: the default location's parent under /var/lib, or a
// deployment's own folder; deeper trees are the installer's business.
void MakeParentDirectory(const char* path)
{
    char parent[PATH_MAX];
    if (snprintf(parent, sizeof(parent), "%s", path) >= static_cast<int>(sizeof(parent))) {
        return;
    }
    char* slash = strrchr(parent, '/');
    if (slash == nullptr || slash == parent) {
        return;
    }
    *slash = '\0';
    (void)mkdir(parent, 0700);  // EEXIST is the usual case; other failures show at mkostemp
}

// Publishes a new key at path unless another process got there first. The key
// is written completely to a temporary file and then hard-linked to its name:
// link, unlike rename, never replaces a key that another process published in
// the meantime, so everyone ends with the first key.
int PublishNewKey(const char* path)
{
    char temporary[PATH_MAX];
    if (snprintf(temporary, sizeof(temporary), "%s.XXXXXX", path) >= static_cast<int>(sizeof(temporary))) {
        return IDENTIFY_E_KEY_FILE;
    }
    unsigned char key[kKeySize];
    if (RAND_bytes(key, kKeySize) != 1) {
        return IDENTIFY_E_RANDOM;
    }
    MakeParentDirectory(path);
    int fd = mkostemp(temporary, O_CLOEXEC);
    if (fd < 0) {
        OPENSSL_cleanse(key, sizeof(key));
        return IDENTIFY_E_KEY_FILE;
    }
    // mkostemp already creates 0600; the explicit mode keeps the promise
    // independent of the C library.
    const bool written = fchmod(fd, 0600) == 0 && WriteAll(fd, key, kKeySize) && fsync(fd) == 0;
    OPENSSL_cleanse(key, sizeof(key));
    close(fd);
    int result = 0;
    if (!written || (link(temporary, path) != 0 && errno != EEXIST)) {
        result = IDENTIFY_E_KEY_FILE;
    }
    unlink(temporary);
    return result;
}

}  // namespace

int LoadOrCreateKey(const char* path, unsigned char key[kKeySize])
{
    switch (ReadKey(path, key)) {
    case ReadResult::kOk: return 0;
    case ReadResult::kBad: return IDENTIFY_E_KEY_FILE;
    case ReadResult::kMissing: break;
    }
    const int published = PublishNewKey(path);
    if (published != 0) {
        return published;
    }
    return ReadKey(path, key) == ReadResult::kOk ? 0 : IDENTIFY_E_KEY_FILE;
}

}  // namespace identify
