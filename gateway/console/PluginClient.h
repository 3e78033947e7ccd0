// The console's way into the product: a client of the plug-in's own ports on
// loopback, like any other client (its requests are filtered, authenticated
// with Digest and logged like theirs). Blocking, for a worker thread; every
// wait is bounded by a time-out, and what is read of a reply's head is bounded.
#ifndef GATEWAY_PLUGIN_CLIENT_H
#define GATEWAY_PLUGIN_CLIENT_H

#include <atomic>
#include <cstddef>
#include <map>
#include <string>

struct ReplyHead {
    int status = 0;
    std::map<std::string, std::string> fields;  // names in lower case
    std::string field(const std::string& name) const;
};

class PluginConnection {
public:
    static constexpr size_t kMaxHeadBytes = 16 * 1024;

    // stop: when set (by any thread), every wait of the connection ends at once.
    explicit PluginConnection(const std::atomic<bool>* stop = nullptr) : m_stop(stop) {}
    ~PluginConnection();
    PluginConnection(const PluginConnection&) = delete;
    PluginConnection& operator=(const PluginConnection&) = delete;

    bool connect(int port, int timeoutMs, std::string& error);
    bool sendAll(const char* data, size_t size, int timeoutMs);
    bool sendAll(const std::string& data, int timeoutMs) { return sendAll(data.data(), data.size(), timeoutMs); }
    // Reads up to the end of the head; bytes after it are kept for read().
    bool readHead(ReplyHead& head, int timeoutMs, std::string& error);
    // Bytes of the body: > 0 read, 0 the peer closed, < 0 a failure or the time-out.
    long read(char* buffer, size_t size, int timeoutMs);
    int fd() const { return m_fd; }
    const std::atomic<bool>* stopFlag() const { return m_stop; }

private:
    bool wait(short events, int timeoutMs);
    const std::atomic<bool>* m_stop;
    int m_fd = -1;
    std::string m_pending;
};

// The Digest answer to a challenge (a WWW-Authenticate value) for one request, as a client computes it.
std::string digestAnswer(const std::string& challenge, const std::string& method, const std::string& uri,
                         const std::string& user, const std::string& password);

struct PluginCredentials {
    std::string user;
    std::string password;
};

// One request to a port of the plug-in, with Digest: sent bare first, and
// again with the answer to the challenge on a new connection. connection holds
// the answered one, its head read and its body to come. The Host names
// hostPort: the audio channel keys a talk by the HTTP port its open named.
bool pluginRequest(int port, int hostPort, const std::string& method, const std::string& target,
                   const std::string& extraHeads, const std::string& body, const PluginCredentials& credentials,
                   PluginConnection& connection, ReplyHead& head, std::string& error);

#endif  // GATEWAY_PLUGIN_CLIENT_H
