// Captures the log lines of the process while alive (through the logging
// library's host output hook), for tests that check what was logged.
#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <mutex>
#include <string>
#include <vector>

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines are captured as "<module>|<text>". True when some line contains the text.
    bool contains(const std::string& text);
    size_t count(const std::string& text);
    void clear();

private:
    static void output(int level, const char* module, const char* text, void* user);
    std::mutex m_lock;
    std::vector<std::string> m_lines;
    int m_savedLevel;
};

#endif  // TESTS_SUPPORT_LOGCAPTURE_H
