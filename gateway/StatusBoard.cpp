#include "StatusBoard.h"

#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Logger.h"

StatusBoard::StatusBoard(std::string path, Logger& log) : m_path(std::move(path)), m_log(log)
{
}

bool StatusBoard::setReady(bool ready, int port)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_status.ready = ready;
    m_status.port = port;
    return publishLocked();
}

void StatusBoard::streamOpened()
{
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_status.openStreams;
    ++m_status.opened;
    publishLocked();
}

void StatusBoard::streamClosed()
{
    std::lock_guard<std::mutex> guard(m_lock);
    --m_status.openStreams;
    ++m_status.closed;
    publishLocked();
}

void StatusBoard::talkOpened()
{
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_status.openTalks;
    ++m_status.talks;
    publishLocked();
}

void StatusBoard::talkClosed()
{
    std::lock_guard<std::mutex> guard(m_lock);
    --m_status.openTalks;
    publishLocked();
}

void StatusBoard::requestRefused()
{
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_status.refused;
    publishLocked();
}

void StatusBoard::requestAccepted(const std::string& clientIP)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_status.lastClientIP == clientIP) {
        return;
    }
    m_status.lastClientIP = clientIP;
    publishLocked();
}

GatewayStatus StatusBoard::snapshot()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_status;
}

bool StatusBoard::publishLocked()
{
    if (m_path.empty()) {
        return true;
    }
    Json::Value root(Json::objectValue);
    root["ready"] = m_status.ready;
    root["port"] = m_status.port;
    root["pid"] = static_cast<Json::Int64>(getpid());
    root["openStreams"] = m_status.openStreams;
    root["openTalks"] = m_status.openTalks;
    root["talks"] = static_cast<Json::UInt64>(m_status.talks);
    root["opened"] = static_cast<Json::UInt64>(m_status.opened);
    root["closed"] = static_cast<Json::UInt64>(m_status.closed);
    root["refused"] = static_cast<Json::UInt64>(m_status.refused);
    root["lastClientIP"] = m_status.lastClientIP;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string text = Json::writeString(builder, root) + "\n";

    const std::string temporary = m_path + ".tmp";
    FILE* file = fopen(temporary.c_str(), "we");
    bool written = file && fwrite(text.data(), 1, text.size(), file) == text.size();
    if (file && fclose(file) != 0) {
        written = false;
    }
    if (!written || rename(temporary.c_str(), m_path.c_str()) != 0) {
        m_log.logf(kLogError, "status file %s cannot be written: %s", m_path.c_str(), strerror(errno));
        return false;
    }
    return true;
}
