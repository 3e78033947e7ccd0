#include "ops/StatusBoard.h"

#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/GatewayMetrics.h"
#include "base/Logger.h"

const char* phaseName(GatewayPhase phase)
{
    switch (phase) {
    case GatewayPhase::kReady: return "ready";
    case GatewayPhase::kStopping: return "stopping";
    default: return "starting";
    }
}

bool GatewayListeners::operator==(const GatewayListeners& other) const
{
    return http == other.http && audio == other.audio && admin == other.admin;
}

bool GatewayStatus::operator==(const GatewayStatus& other) const
{
    return phase == other.phase && port == other.port && openStreams == other.openStreams &&
           openTalks == other.openTalks && talks == other.talks && opened == other.opened && closed == other.closed &&
           refused == other.refused && lastClientIP == other.lastClientIP && listeners == other.listeners;
}

StatusBoard::StatusBoard(std::string path, const GatewayMetrics& metrics, Logger& log)
    : m_metrics(metrics), m_path(std::move(path)), m_log(log)
{
}

void StatusBoard::setListeners(GatewayListeners listeners)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_listeners = std::move(listeners);
}

bool StatusBoard::setPhase(GatewayPhase phase, int port)
{
    m_phase = phase;
    std::lock_guard<std::mutex> guard(m_lock);
    m_port = port;
    return publishLocked(snapshotLocked());
}

void StatusBoard::requestAccepted(const std::string& clientIP)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_lastClientIP = clientIP;
}

GatewayStatus StatusBoard::snapshot()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return snapshotLocked();
}

void StatusBoard::publishIfChanged()
{
    // Read under the lock, so that of two writers the later snapshot is also the later file.
    std::lock_guard<std::mutex> guard(m_lock);
    GatewayStatus status = snapshotLocked();
    if (!m_everPublished || !(status == m_published)) {
        publishLocked(status);
    }
}

GatewayStatus StatusBoard::snapshotLocked() const
{
    GatewayStatus status;
    status.phase = m_phase.load();
    status.port = m_port;
    status.openStreams = m_metrics.openDownloads();
    status.openTalks = m_metrics.openTalks();
    status.talks = m_metrics.talksStarted();
    status.opened = m_metrics.downloadsStarted();
    status.closed = m_metrics.downloadsFinished();
    status.refused = m_metrics.requestsRefused();
    status.lastClientIP = m_lastClientIP;
    status.listeners = m_listeners;
    return status;
}

bool StatusBoard::publishLocked(const GatewayStatus& status)
{
    m_published = status;
    m_everPublished = true;
    if (m_path.empty()) {
        return true;
    }
    Json::Value root(Json::objectValue);
    root["ready"] = status.phase == GatewayPhase::kReady;
    root["phase"] = phaseName(status.phase);
    root["port"] = status.port;
    root["pid"] = static_cast<Json::Int64>(getpid());
    root["openStreams"] = static_cast<Json::Int64>(status.openStreams);
    root["openTalks"] = static_cast<Json::Int64>(status.openTalks);
    root["talks"] = static_cast<Json::UInt64>(status.talks);
    root["opened"] = static_cast<Json::UInt64>(status.opened);
    root["closed"] = static_cast<Json::UInt64>(status.closed);
    root["refused"] = static_cast<Json::UInt64>(status.refused);
    root["lastClientIP"] = status.lastClientIP;
    Json::Value& listeners = root["listeners"] = Json::Value(Json::objectValue);
    listeners["http"] = status.listeners.http;
    listeners["audio"] = status.listeners.audio;
    if (!status.listeners.admin.empty()) {
        listeners["admin"] = status.listeners.admin;
    }
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
