// Tells the service manager how the gateway is doing, for a unit of Type=notify
// (tools/media-gateway.service): ready once the plug-in listens, reloading while
// a SIGHUP is applied, stopping once a stop began, and a one-line status that
// `systemctl status` shows. Outside such a unit (no NOTIFY_SOCKET) every call
// does nothing. Called from the gateway's main thread only.
#ifndef GATEWAY_SERVICE_NOTIFIER_H
#define GATEWAY_SERVICE_NOTIFIER_H

#include <string>

class ServiceNotifier {
public:
    void ready(const std::string& status);
    void reloading();
    void stopping(const std::string& status);
    // Sent only when it differs from the last status sent: the manager's socket
    // takes a datagram per call, and a full socket would hold the caller up.
    void status(const std::string& status);

private:
    void notify(const std::string& state, const std::string& status);

    std::string m_lastStatus;
};

#endif  // GATEWAY_SERVICE_NOTIFIER_H
