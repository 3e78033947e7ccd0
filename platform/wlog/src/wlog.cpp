// Logging library: one formatted line per call, written with one write(2) so
// that lines of concurrent writers never interleave.
#include "wlog/wlog.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>

namespace {

constexpr int kMinLevel = WLOG_DEBUG;
constexpr int kMaxLevel = WLOG_ERROR;
constexpr size_t kLineMax = 8192;  // longer texts are cut, never split

struct Output {
    wlog_output_fn fn = nullptr;
    void* user = nullptr;
};

std::atomic<int> g_level{-1};  // -1 until the environment was read
std::atomic<int> g_fd{-1};
// Held shared while a host's output function runs, so that once wlog_set_output
// returns the previous function is never called again.
std::shared_mutex g_outputLock;
Output g_output;
std::once_flag g_envOnce;

int clampLevel(int level)
{
    return level < kMinLevel ? kMinLevel : (level > kMaxLevel ? kMaxLevel : level);
}

void readEnvironment()
{
    int level = WLOG_INFO;
    if (const char* text = getenv("WLOG_LEVEL")) {
        char* end = nullptr;
        long value = strtol(text, &end, 10);
        if (end != text && *end == '\0') {
            level = clampLevel(static_cast<int>(value));
        }
    }
    int fd = STDERR_FILENO;
    if (const char* path = getenv("WLOG_FILE")) {
        if (*path != '\0') {
            int opened = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            if (opened >= 0) {
                fd = opened;
            }
        }
    }
    g_fd.store(fd);
    int expected = -1;
    g_level.compare_exchange_strong(expected, level);  // an explicit wlog_set_level wins
}

void ensureConfigured()
{
    if (g_fd.load(std::memory_order_acquire) < 0) {
        std::call_once(g_envOnce, readEnvironment);
    }
}

const char* levelName(int level)
{
    switch (level) {
    case WLOG_DEBUG: return "DEBUG";
    case WLOG_INFO: return "INFO";
    case WLOG_WARN: return "WARN";
    case WLOG_ERROR: return "ERROR";
    default: return "LOG";
    }
}

void writeAll(int fd, const char* data, size_t length)
{
    while (length > 0) {
        ssize_t written = write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // a log line is never worth failing the caller
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
}

void writeLine(int level, const char* module, const char* text)
{
    char line[kLineMax + 128];
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    int length = snprintf(line, sizeof line, "%04d-%02d-%02d %02d:%02d:%02d.%06ld %-5s %s %s\n", local.tm_year + 1900,
                          local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                          static_cast<long>(now.tv_usec), levelName(level), module ? module : "-", text);
    if (length < 0) {
        return;
    }
    if (static_cast<size_t>(length) >= sizeof line) {
        length = sizeof line - 1;
        line[length - 1] = '\n';
    }
    writeAll(g_fd.load(), line, static_cast<size_t>(length));
}

}  // namespace

extern "C" {

int wlog_enabled(int level)
{
    ensureConfigured();
    return level >= g_level.load(std::memory_order_relaxed);
}

void wlog_format(int level, const char* module, const char* format, ...)
{
    if (!wlog_enabled(level) || format == nullptr) {
        return;
    }
    char text[kLineMax];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);

    std::shared_lock<std::shared_mutex> guard(g_outputLock);
    if (g_output.fn != nullptr) {
        g_output.fn(level, module ? module : "", text, g_output.user);
    } else {
        writeLine(level, module, text);
    }
}

void wlog_set_output(wlog_output_fn fn, void* user)
{
    std::unique_lock<std::shared_mutex> guard(g_outputLock);
    g_output.fn = fn;
    g_output.user = user;
}

int wlog_set_level(int level)
{
    ensureConfigured();
    return g_level.exchange(clampLevel(level));
}

int wlog_get_level(void)
{
    ensureConfigured();
    return g_level.load();
}

}  // extern "C"
