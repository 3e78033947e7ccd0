#include "ops/AccessLog.h"

#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/GatewayMetrics.h"
#include "base/Logger.h"

namespace {

// A field of the common format is one word: empty is "-", and a space, a quote,
// a percent sign or a byte outside printable ASCII is percent-escaped, so a user
// name cannot shift the columns a log reader splits on.
std::string commonField(const std::string& text)
{
    if (text.empty()) {
        return "-";
    }
    std::string field;
    for (unsigned char c : text) {
        if (c <= 0x20 || c >= 0x7f || c == '"' || c == '%') {
            char escaped[4];
            snprintf(escaped, sizeof escaped, "%%%02X", c);
            field += escaped;
        } else {
            field += static_cast<char>(c);
        }
    }
    return field;
}

std::string itemOf(const AccessEntry& entry)
{
    if (entry.kind == "talk") {
        return entry.channel != 0 ? "channel-" + std::to_string(entry.channel) : std::string();
    }
    return entry.recording;
}

std::string formatCommon(const AccessEntry& entry)
{
    const time_t seconds = std::chrono::system_clock::to_time_t(entry.time);
    struct tm local;
    localtime_r(&seconds, &local);
    char stamp[40];
    strftime(stamp, sizeof stamp, "%d/%b/%Y:%H:%M:%S %z", &local);
    char numbers[96];
    snprintf(numbers, sizeof numbers, " %llu %llu %.3f ", static_cast<unsigned long long>(entry.bytesSent),
             static_cast<unsigned long long>(entry.bytesReceived), entry.seconds);
    return commonField(entry.client) + " - " + commonField(entry.user) + " [" + stamp + "] \"" +
           commonField(entry.kind) + " " + commonField(entry.device) + " " + commonField(itemOf(entry)) + "\" " +
           commonField(entry.range) + numbers + commonField(entry.outcome) + "\n";
}

std::string utcStamp(std::chrono::system_clock::time_point time)
{
    const auto sinceEpoch = time.time_since_epoch();
    const time_t seconds = std::chrono::system_clock::to_time_t(time);
    const long milliseconds =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000);
    struct tm utc;
    gmtime_r(&seconds, &utc);
    char stamp[40];
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
    char withFraction[48];
    snprintf(withFraction, sizeof withFraction, "%s.%03ldZ", stamp, milliseconds);
    return withFraction;
}

std::string formatJson(const AccessEntry& entry)
{
    Json::Value line(Json::objectValue);
    line["time"] = utcStamp(entry.time);
    line["kind"] = entry.kind;
    line["client"] = entry.client;
    line["user"] = entry.user;
    line["device"] = entry.device;
    if (entry.kind == "talk") {
        line["channel"] = entry.channel != 0 ? Json::Value(entry.channel) : Json::Value();
    } else {
        line["recording"] = entry.recording;
    }
    line["range"] = entry.range.empty() ? Json::Value() : Json::Value(entry.range);
    line["bytesSent"] = static_cast<Json::UInt64>(entry.bytesSent);
    line["bytesReceived"] = static_cast<Json::UInt64>(entry.bytesReceived);
    line["seconds"] = static_cast<double>(static_cast<int64_t>(entry.seconds * 1000 + 0.5)) / 1000;
    line["outcome"] = entry.outcome;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, line) + "\n";
}

}  // namespace

bool parseAccessLogFormat(const std::string& name, AccessLogFormat& format)
{
    if (name == "common" || name == "json") {
        format = name == "json" ? AccessLogFormat::kJson : AccessLogFormat::kCommon;
        return true;
    }
    return false;
}

std::string formatAccessEntry(const AccessEntry& entry, AccessLogFormat format)
{
    return format == AccessLogFormat::kJson ? formatJson(entry) : formatCommon(entry);
}

AccessLog::AccessLog(GatewayMetrics& metrics, Logger& log, std::function<int64_t()> now)
    : m_metrics(metrics), m_log(log), m_now(std::move(now))
{
}

AccessLog::~AccessLog()
{
    close();
}

bool AccessLog::open(const std::string& path, AccessLogFormat format, std::string& error)
{
    FILE* file = fopen(path.c_str(), "ae");
    if (file == nullptr) {
        error = path + ": " + strerror(errno);
        return false;
    }
    m_path = path;
    m_format = format;
    m_file = file;
    m_writer = std::thread(&AccessLog::writeLoop, this);
    return true;
}

void AccessLog::record(AccessEntry entry)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_writer.joinable() || m_stop) {
            return;
        }
        if (m_queue.size() >= kMaxQueued) {
            m_metrics.accessLogLineDropped();
            return;
        }
        m_queue.push_back(std::move(entry));
    }
    m_wake.notify_one();
}

void AccessLog::recordRefusal(AccessEntry entry)
{
    const int64_t now = m_now();
    bool skipped = false;
    bool noteSkipping = false;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_writer.joinable() || m_stop) {
            return;
        }
        if (now != m_refusalSecond) {
            m_refusalSecond = now;
            m_refusalsThisSecond = 0;
        }
        skipped = m_refusalsThisSecond >= kMaxRefusalsPerSecond;
        m_refusalsThisSecond += skipped ? 0 : 1;
        noteSkipping = skipped && (m_skipNotedAt < 0 || now - m_skipNotedAt >= 60);
        m_skipNotedAt = noteSkipping ? now : m_skipNotedAt;
    }
    if (skipped) {
        m_metrics.accessLogRefusalSkipped();
        if (noteSkipping) {
            m_log.logf(kLogWarn,
                       "access log: more than %d refusals a second; the others are counted "
                       "(media_gateway_access_log_refusals_skipped_total), not written",
                       kMaxRefusalsPerSecond);
        }
        return;
    }
    for (std::string* claim : {&entry.user, &entry.device, &entry.recording}) {
        claim->resize(std::min(claim->size(), kMaxClaimedText));
    }
    record(std::move(entry));
}

void AccessLog::reopen()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_reopen = true;
    }
    m_wake.notify_one();
}

void AccessLog::close()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_stop = true;
    }
    m_wake.notify_one();
    if (m_writer.joinable()) {
        m_writer.join();
    }
    if (m_file != nullptr) {
        fclose(m_file);
        m_file = nullptr;
    }
}

void AccessLog::writeLoop()
{
    std::unique_lock<std::mutex> lock(m_lock);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stop || m_reopen || !m_queue.empty(); });
        std::deque<AccessEntry> batch;
        batch.swap(m_queue);
        const bool reopen = m_reopen;
        const bool stop = m_stop;
        m_reopen = false;
        lock.unlock();

        if (reopen) {
            if (FILE* file = fopen(m_path.c_str(), "ae")) {
                fclose(m_file);
                m_file = file;
            } else {
                m_log.logf(kLogError, "access log %s cannot be opened again: %s; writing on to the old file",
                           m_path.c_str(), strerror(errno));
            }
        }
        std::string text;
        for (const AccessEntry& entry : batch) {
            text += formatAccessEntry(entry, m_format);
        }
        if (!text.empty() && (fwrite(text.data(), 1, text.size(), m_file) != text.size() || fflush(m_file) != 0)) {
            m_log.logf(kLogError, "access log %s: %zu line(s) cannot be written: %s", m_path.c_str(), batch.size(),
                       strerror(errno));
        }
        if (stop) {
            return;
        }
        lock.lock();
    }
}
