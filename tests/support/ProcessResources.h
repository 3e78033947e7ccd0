// What the test process holds, to show that something left nothing behind.
#ifndef TESTS_SUPPORT_PROCESSRESOURCES_H
#define TESTS_SUPPORT_PROCESSRESOURCES_H

#include <dirent.h>

#include <fstream>
#include <string>

namespace testsupport {

inline int openDescriptorCount()
{
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

inline int threadCount()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 8, "Threads:") == 0) {
            return std::stoi(line.substr(8));
        }
    }
    return -1;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_PROCESSRESOURCES_H
