// Tells the service manager how the gateway is doing, for a unit of Type=notify
// (packaging/media-gateway.service.in): ready once the plug-in listens,
// reloading while a SIGHUP is applied, stopping once a stop began, and a
// one-line status that `systemctl status` shows. Outside such a unit (no
// NOTIFY_SOCKET) every call does nothing. Called from the gateway's main thread
// only.
//
// The datagrams go out without blocking: the main thread also handles SIGTERM,
// so a manager (or a test) that stops reading its socket must not hold the
// gateway up. A state change (ready, reloading, stopping) waits up to
// kStateWaitMs for room in the socket; a status line that finds no room is
// dropped, the next one carries the news.
#ifndef GATEWAY_SERVICE_NOTIFIER_H
#define GATEWAY_SERVICE_NOTIFIER_H

#include <string>

class ServiceNotifier {
public:
    static const int kStateWaitMs = 1000;

    // The socket is NOTIFY_SOCKET's, read once: a path, or "@name" for an
    // abstract one.
    ServiceNotifier();
    explicit ServiceNotifier(const std::string& socketAddress);
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier&) = delete;
    ServiceNotifier& operator=(const ServiceNotifier&) = delete;

    void ready(const std::string& status);
    void reloading();
    void stopping(const std::string& status);
    // Sent only when it differs from the last status sent.
    void status(const std::string& status);

private:
    // Whether the manager took the message within waitMs.
    bool notify(const std::string& state, const std::string& status, int waitMs);

    int m_socket = -1;
    std::string m_lastStatus;
};

#endif  // GATEWAY_SERVICE_NOTIFIER_H
