#include "base/Logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <sys/time.h>

namespace {

const char* levelName(int level)
{
    if (level <= kLogDebug) {
        return "DEBUG";
    }
    switch (level) {
    case kLogInfo: return "INFO";
    case kLogWarn: return "WARN";
    default: return "ERROR";
    }
}

// The same stamp as the plug-in's own log lines, so one log reads as one.
std::string timeStamp()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm parts;
    localtime_r(&now.tv_sec, &parts);
    char text[48];
    snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%06ld", parts.tm_year + 1900, parts.tm_mon + 1,
             parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long>(now.tv_usec));
    return text;
}

}  // namespace

std::string escapeControlBytes(const char* text, size_t length)
{
    std::string escaped;
    escaped.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) {
            char code[5];
            snprintf(code, sizeof code, "\\x%02x", c);
            escaped += code;
        } else {
            escaped += static_cast<char>(c);
        }
    }
    return escaped;
}

bool parseLogLevel(const std::string& name, int& level)
{
    static const struct {
        const char* name;
        int level;
    } kLevels[] = {{"debug", kLogDebug}, {"info", kLogInfo}, {"warn", kLogWarn}, {"error", kLogError}};
    for (const auto& entry : kLevels) {
        if (name == entry.name) {
            level = entry.level;
            return true;
        }
    }
    return false;
}

Logger::Logger() : m_file(nullptr), m_fileFailing(false), m_level(kLogInfo)
{
}

Logger::~Logger()
{
    if (m_file) {
        fclose(m_file);
    }
}

bool Logger::openFile(const std::string& path, std::string& error)
{
    FILE* file = fopen(path.c_str(), "ae");
    if (!file) {
        error = path + ": " + strerror(errno);
        return false;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_file) {
        fclose(m_file);
    }
    m_file = file;
    m_fileFailing = false;
    return true;
}

void Logger::write(int level, const char* module, const char* text)
{
    if (level < m_level) {
        return;
    }
    // The plug-in ends some lines with a line break of its own.
    size_t length = text ? strlen(text) : 0;
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) {
        --length;
    }
    // Lines carry what clients sent (a body, a URI, a user name): escaped here,
    // for every writer, so that one event stays one line and no terminal
    // control reaches whoever reads the log.
    const std::string line = escapeControlBytes(text ? text : "", length);
    const std::string origin = module ? escapeControlBytes(module, strlen(module)) : "-";
    std::string stamp = timeStamp();
    std::lock_guard<std::mutex> guard(m_lock);
    FILE* out = m_file ? m_file : stderr;
    fprintf(out, "%s %-5s %s %s\n", stamp.c_str(), levelName(level), origin.c_str(), line.c_str());
    const bool written = fflush(out) == 0;
    if (out == m_file) {
        // A full disk or the operator's file size limit: said once on stderr, not once per lost line.
        if (!written && !m_fileFailing) {
            fprintf(stderr, "%s ERROR gateway the log file cannot grow (%s): its lines are lost until it can\n",
                    stamp.c_str(), strerror(errno));
        }
        m_fileFailing = !written;
        clearerr(out);
    }
}

void Logger::logf(int level, const char* format, ...)
{
    if (level < m_level) {
        return;
    }
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    write(level, "gateway", text);
}
