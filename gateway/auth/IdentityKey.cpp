#include "auth/IdentityKey.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kDefaultKeyFile = "/var/lib/identify/identify.key";  // the identity library's default
constexpr off_t kKeySize = 32;

std::string parentOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

std::string identityKeyPath()
{
    const char* path = getenv("IDENTIFY_KEY_FILE");
    return path != nullptr && path[0] != '\0' ? path : kDefaultKeyFile;
}

bool checkIdentityKeyFile(const std::string& path, std::string& error)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a FIFO must not hold the start
    if (fd >= 0) {
        struct stat info;
        const bool sized = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size == kKeySize;
        close(fd);
        if (!sized) {
            error = path + " is not a " + std::to_string(kKeySize) + "-byte key file";
        }
        return sized;
    }
    if (errno != ENOENT) {
        error = path + ": " + strerror(errno);
        return false;
    }
    // Missing: the library creates it, and its folder one level up if need be.
    std::string folder = parentOf(path);
    if (access(folder.c_str(), F_OK) != 0) {
        folder = parentOf(folder);
    }
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
        error = path + " does not exist and cannot be created in " + folder + ": " + strerror(errno);
        return false;
    }
    return true;
}
