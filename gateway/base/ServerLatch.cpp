#include "base/ServerLatch.h"

void ServerLatch::set(PROTOCOL_WRAPPER::IServer* server)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_server = server;
    }
    m_known.notify_all();
}

PROTOCOL_WRAPPER::IServer* ServerLatch::wait(const std::function<bool()>& giveUp)
{
    std::unique_lock<std::mutex> lock(m_lock);
    m_known.wait(lock, [&] { return m_server.load() != nullptr || giveUp(); });
    return m_server.load();
}

void ServerLatch::wake()
{
    // Taken and dropped so that a waiter between its check and its sleep sees the change.
    {
        std::lock_guard<std::mutex> guard(m_lock);
    }
    m_known.notify_all();
}
