// What the test process holds, to show that something left nothing behind.
#ifndef TESTS_SUPPORT_PROCESSRESOURCES_H
#define TESTS_SUPPORT_PROCESSRESOURCES_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

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

// Starts and joins one thread, and returns once the kernel no longer lists it. A
// sanitizer's runtime starts its own helper thread with the process's first
// one, which is not the code's under test; and a thread just joined can still
// be counted for a moment while the kernel finishes it.
inline void warmUpThreads()
{
    long tid = 0;
    std::thread([&tid] { tid = syscall(SYS_gettid); }).join();
    const std::string task = "/proc/self/task/" + std::to_string(tid);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    struct stat info;
    while (stat(task.c_str(), &info) == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_PROCESSRESOURCES_H
