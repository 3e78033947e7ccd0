#include "LoopMailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace netutils {

LoopMailbox::LoopMailbox() : m_eventFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
}

LoopMailbox::~LoopMailbox()
{
    if (m_eventFd >= 0) {
        ::close(m_eventFd);
    }
}

void LoopMailbox::post(uint64_t connectionId, Connection::End reason)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            return;
        }
        m_notes.push_back(Note{connectionId, reason, nullptr});
    }
    wake();
}

bool LoopMailbox::postFile(uint64_t connectionId, std::unique_ptr<FileDelivery>& file)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            return false;
        }
        m_notes.push_back(Note{connectionId, Connection::End::Open, std::move(file)});
    }
    wake();
    return true;
}

void LoopMailbox::wake()
{
    const uint64_t one = 1;
    // A full counter (never reached in practice) still leaves the descriptor readable.
    ssize_t written = ::write(m_eventFd, &one, sizeof(one));
    (void)written;
}

void LoopMailbox::takeAll(std::vector<Note>& out)
{
    uint64_t count = 0;
    ssize_t got = ::read(m_eventFd, &count, sizeof(count));
    (void)got;  // nothing to read is fine: the notes below are what matters
    std::lock_guard<std::mutex> lock(m_mutex);
    out.swap(m_notes);
    m_notes.clear();
}

void LoopMailbox::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
}

}  // namespace netutils
