#include "ops/ProcessStats.h"

#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

// "VmRSS:     1234 kB" and the like from /proc/self/status.
void readStatus(ProcessStats& stats)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream fields(line);
        std::string name;
        uint64_t value = 0;
        fields >> name >> value;
        if (name == "VmRSS:") {
            stats.residentBytes = value * 1024;
        } else if (name == "VmSize:") {
            stats.virtualBytes = value * 1024;
        } else if (name == "Threads:") {
            stats.threads = static_cast<int>(value);
        }
    }
}

int countDescriptors()
{
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return 0;
    }
    while (struct dirent* entry = readdir(dir)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(dir);
    return count - 1;  // the directory's own descriptor
}

// When the machine booted, in seconds since the epoch: the start time in
// /proc/self/stat counts from there. (Read from the clocks rather than
// /proc/stat, which a hardened service unit may hide.)
double bootTimeSeconds()
{
    struct timespec now, sinceBoot;
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    return static_cast<double>(now.tv_sec - sinceBoot.tv_sec) + (now.tv_nsec - sinceBoot.tv_nsec) / 1e9;
}

// CPU time and start time from /proc/self/stat: fields 14, 15 (utime, stime) and
// 22 (starttime), in clock ticks, counted after the command's closing parenthesis.
void readStat(ProcessStats& stats)
{
    std::ifstream file("/proc/self/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    for (int number = 3; fields >> field && number <= 22; ++number) {
        if (number == 14 || number == 15) {
            stats.cpuSeconds += std::stod(field) / ticks;
        } else if (number == 22) {
            stats.startTimeSeconds = bootTimeSeconds() + std::stod(field) / ticks;
        }
    }
}

}  // namespace

ProcessStats readProcessStats()
{
    ProcessStats stats;
    readStatus(stats);
    readStat(stats);
    stats.openDescriptors = countDescriptors();
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        stats.maxDescriptors = static_cast<uint64_t>(limit.rlim_cur);
    }
    return stats;
}
