// Captures the log lines of the process while alive (through the logging
// library's host output hook), for tests that check what was logged.
#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <wlog/wlog.h>

class LogCapture {
public:
    LogCapture() : m_savedLevel(wlog_set_level(WLOG_DEBUG)) { wlog_set_output(output, this); }
    ~LogCapture()
    {
        wlog_set_output(nullptr, nullptr);
        wlog_set_level(m_savedLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines are captured as "<module>|<text>". True when some line contains the text.
    bool contains(const std::string& text) { return count(text) > 0; }
    size_t count(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return std::count_if(m_lines.begin(), m_lines.end(),
                             [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }
    void clear()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_lines.clear();
    }

private:
    static void output(int, const char* module, const char* text, void* user)
    {
        LogCapture* self = static_cast<LogCapture*>(user);
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_lines.push_back(std::string(module) + "|" + text);
    }
    std::mutex m_lock;
    std::vector<std::string> m_lines;
    int m_savedLevel;
};

#endif  // TESTS_SUPPORT_LOGCAPTURE_H
