#include "console/TalkBridge.h"

#include "base/Logger.h"

namespace {

constexpr int kLinkMs = 10000;
constexpr size_t kMaxReplyBytes = 16 * 1024;

std::string talkPath(int channel)
{
    return "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel);
}

// The body of a short reply, up to its Content-Length.
std::string readBody(PluginConnection& connection, const ReplyHead& head)
{
    const size_t length = std::min<size_t>(kMaxReplyBytes, strtoul(head.field("content-length").c_str(), nullptr, 10));
    std::string body;
    char buffer[2048];
    while (body.size() < length) {
        const long got = connection.read(buffer, std::min(sizeof buffer, length - body.size()), kLinkMs);
        if (got <= 0) {
            break;
        }
        body.append(buffer, static_cast<size_t>(got));
    }
    return body;
}

// The sessionId of an open's reply, in XML or JSON.
std::string sessionIdOf(const std::string& body)
{
    size_t start = body.find("<sessionId>");
    if (start != std::string::npos) {
        start += 11;
    } else if ((start = body.find("\"sessionId\"")) != std::string::npos) {
        start = body.find_first_of("0123456789", start);
    }
    if (start == std::string::npos) {
        return "";
    }
    const size_t end = body.find_first_not_of("0123456789", start);
    return body.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

TalkBridge::TalkBridge(Setup setup, Opened opened, Heard heard, Ended ended, Logger& log)
    : m_setup(std::move(setup)),
      m_opened(std::move(opened)),
      m_heard(std::move(heard)),
      m_ended(std::move(ended)),
      m_log(log),
      m_encoder(*m_setup.codec),
      m_decoder(*m_setup.codec)
{
}

void TalkBridge::speak(const int16_t* samples, size_t count)
{
    std::string bytes = m_encoder.encode(samples, count);
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_finishing || m_queuedBytes + bytes.size() > kMaxQueuedBytes) {
        return;
    }
    m_queuedBytes += bytes.size();
    m_queue.push_back(std::move(bytes));
    m_wake.notify_all();
}

void TalkBridge::finish()
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_finishing = true;
    m_wake.notify_all();
}

void TalkBridge::cut()
{
    m_cut = true;
    finish();
}

bool TalkBridge::openTalk(std::string& sessionId, std::string& error)
{
    PluginConnection connection(&m_cut);
    ReplyHead head;
    if (!pluginRequest(m_setup.httpPort, m_setup.httpPort, "PUT", talkPath(m_setup.channel) + "/open", "", "",
                       m_setup.credentials, connection, head, error)) {
        return false;
    }
    const std::string body = readBody(connection, head);
    if (head.status != 200) {
        error = "the open was refused: HTTP " + std::to_string(head.status) + " " + body.substr(0, 300);
        return false;
    }
    sessionId = sessionIdOf(body);
    if (sessionId.empty()) {
        error = "the open's reply carries no session id";
        return false;
    }
    return true;
}

void TalkBridge::closeTalk()
{
    PluginConnection connection;  // a close is sent even while the console stops; its waits are short
    ReplyHead head;
    std::string error;
    if (!pluginRequest(m_setup.httpPort, m_setup.httpPort, "PUT", talkPath(m_setup.channel) + "/close", "", "",
                       m_setup.credentials, connection, head, error)) {
        m_log.logf(kLogDebug, "console talk %s: close: %s", m_setup.label.c_str(), error.c_str());
    }
}

void TalkBridge::write(PluginConnection& link)
{
    for (;;) {
        std::string bytes;
        {
            std::unique_lock<std::mutex> guard(m_lock);
            m_wake.wait(guard, [this] { return !m_queue.empty() || m_finishing; });
            if (m_queue.empty() || m_cut) {
                return;
            }
            bytes = std::move(m_queue.front());
            m_queue.pop_front();
            m_queuedBytes -= bytes.size();
        }
        if (!link.sendAll(bytes, kLinkMs)) {
            return;
        }
    }
}

void TalkBridge::run()
{
    std::string sessionId, error;
    if (!openTalk(sessionId, error)) {
        m_log.logf(kLogInfo, "console talk %s: %s", m_setup.label.c_str(), error.c_str());
        m_ended(error);
        return;
    }
    const std::string target = talkPath(m_setup.channel) + "/audioData?sessionId=" + sessionId;
    PluginConnection speaking(&m_cut), listening(&m_readerDone);
    ReplyHead head;
    if (!pluginRequest(m_setup.audioPort, m_setup.httpPort, "PUT", target, "", "", m_setup.credentials, speaking, head,
                       error) ||
        head.status != 200 ||
        !pluginRequest(m_setup.audioPort, m_setup.httpPort, "GET", target, "", "", m_setup.credentials, listening, head,
                       error) ||
        head.status != 200) {
        if (error.empty()) {
            error = "an audio link was refused: HTTP " + std::to_string(head.status);
        }
        m_log.logf(kLogInfo, "console talk %s: %s", m_setup.label.c_str(), error.c_str());
        closeTalk();
        m_ended(error);
        return;
    }
    m_log.logf(kLogInfo, "console talk %s: open on channel %d (session %s, %s)", m_setup.label.c_str(), m_setup.channel,
               sessionId.c_str(), m_setup.codec->name);
    m_opened();
    std::thread writer([this, &speaking] {
        write(speaking);
        m_readerDone = true;  // said all: the device's audio is no longer wanted
    });
    std::vector<char> buffer(static_cast<size_t>(m_setup.codec->packetBytes) * 4);
    while (!m_readerDone) {
        const long got = listening.read(buffer.data(), buffer.size(), kLinkMs);
        if (got <= 0) {
            break;
        }
        m_heard(m_decoder.decode(buffer.data(), static_cast<size_t>(got)));
    }
    finish();
    writer.join();
    // The talk is closed before its links: a PUT link that ended first would have ended the talk already.
    closeTalk();
    m_log.logf(kLogInfo, "console talk %s: closed", m_setup.label.c_str());
    m_ended("");
}
