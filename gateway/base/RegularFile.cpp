#include "base/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

int openRegularFile(const std::string& path, FileLinks links, std::string& error)
{
    const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (links == FileLinks::kRefused ? O_NOFOLLOW : 0);
    const int fd = open(path.c_str(), flags);
    if (fd < 0) {
        error = path + (errno == ELOOP && links == FileLinks::kRefused
                            ? ": is a symbolic link, not a file"
                            : ": cannot be opened: " + std::string(strerror(errno)));
        return -1;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = path + ": is not a regular file";
        close(fd);
        return -1;
    }
    return fd;
}

bool readRegularFile(const std::string& path, size_t maxBytes, std::string& text, std::string& error)
{
    const int fd = openRegularFile(path, FileLinks::kFollow, error);
    if (fd < 0) {
        return false;
    }
    text.clear();
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            error = path + ": cannot be read: " + strerror(errno);
            break;
        }
        if (got == 0) {
            close(fd);
            return true;
        }
        if (text.size() + static_cast<size_t>(got) > maxBytes) {
            error = path + ": larger than " + std::to_string(maxBytes) + " bytes";
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return false;
}
