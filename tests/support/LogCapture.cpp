#include "LogCapture.h"

#include <wlog/wlog.h>

LogCapture::LogCapture()
{
    m_savedLevel = wlog_set_level(WLOG_DEBUG);
    wlog_set_output(output, this);
}

LogCapture::~LogCapture()
{
    wlog_set_output(nullptr, nullptr);
    wlog_set_level(m_savedLevel);
}

void LogCapture::output(int level, const char* module, const char* text, void* user)
{
    LogCapture* self = static_cast<LogCapture*>(user);
    std::lock_guard<std::mutex> guard(self->m_lock);
    self->m_lines.push_back(std::string(module) + "|" + text);
}

bool LogCapture::contains(const std::string& text)
{
    return count(text) > 0;
}

size_t LogCapture::count(const std::string& text)
{
    std::lock_guard<std::mutex> guard(m_lock);
    size_t found = 0;
    for (const std::string& line : m_lines) {
        if (line.find(text) != std::string::npos) {
            ++found;
        }
    }
    return found;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_lines.clear();
}
