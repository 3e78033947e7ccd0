// The gateway's log: one line per event, with a local time stamp, the level
// and the module, written to stderr or to a log file. The plug-in's own lines
// (its logging library's and the utility sink's) land in the same log, through
// write(), which writes every control byte escaped as \xNN: a line can carry
// what a client sent, and must stay one line.
#ifndef GATEWAY_LOGGER_H
#define GATEWAY_LOGGER_H

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

// Levels as the plug-in numbers them, so its lines need no translation.
enum LogLevel {
    kLogDebug = 2,
    kLogInfo = 3,
    kLogWarn = 4,
    kLogError = 5,
};

// text with every byte below 0x20 and 0x7F written as "\xNN".
std::string escapeControlBytes(const char* text, size_t length);

// "debug", "info", "warn", "error" to a level; false for anything else.
bool parseLogLevel(const std::string& name, int& level);

class Logger {
public:
    Logger();
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Appends to the file from now on; stderr stays in use when it cannot be opened.
    bool openFile(const std::string& path, std::string& error);
    void setLevel(int level) { m_level = level; }
    int level() const { return m_level; }

    void write(int level, const char* module, const char* text);
    void logf(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

private:
    std::mutex m_lock;   // one line at a time, whole
    FILE* m_file;        // null: stderr
    bool m_fileFailing;  // the last write to m_file failed (reported once on stderr)
    std::atomic<int> m_level;
};

#endif  // GATEWAY_LOGGER_H
