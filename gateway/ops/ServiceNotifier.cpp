#include "ops/ServiceNotifier.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <cstdint>

void ServiceNotifier::notify(const std::string& state, const std::string& status)
{
    m_lastStatus = status;
    // The result is ignored: the gateway runs the same with or without a service manager.
    sd_notify(0, (state + "STATUS=" + status).c_str());
}

void ServiceNotifier::ready(const std::string& status)
{
    notify("READY=1\n", status);
}

void ServiceNotifier::reloading()
{
    // The manager's clock, so that it can tell this reload from an earlier one.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t microseconds = static_cast<uint64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
    notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds) + "\n",
           "reloading users, devices and recordings");
}

void ServiceNotifier::stopping(const std::string& status)
{
    notify("STOPPING=1\n", status);
}

void ServiceNotifier::status(const std::string& status)
{
    if (status != m_lastStatus) {
        notify("", status);
    }
}
