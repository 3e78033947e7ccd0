// How other threads tell a listener's I/O thread that a connection ended.
//
// Reply and Close run on the owner's threads, but the end of a connection is
// reported to the owner's callback from the I/O thread only (never from inside
// an API call), so they leave a note here and wake the thread through an
// eventfd that it watches with its sockets.
#ifndef NETUTILS_LOOPMAILBOX_H
#define NETUTILS_LOOPMAILBOX_H

#include "Connection.h"
#include "FileDelivery.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace netutils {

class LoopMailbox {
public:
    // Either the end of a connection, or a file to send on it (then `reason` means nothing).
    struct Note {
        uint64_t connectionId;
        Connection::End reason;
        std::unique_ptr<FileDelivery> file;
    };

    LoopMailbox();
    ~LoopMailbox();
    LoopMailbox(const LoopMailbox&) = delete;
    LoopMailbox& operator=(const LoopMailbox&) = delete;

    bool isValid() const { return m_eventFd >= 0; }
    int eventFd() const { return m_eventFd; }

    // Dropped once the loop has stopped: its connections are gone by then.
    void post(uint64_t connectionId, Connection::End reason);
    // Takes the file only when the loop still runs; false leaves it with the caller.
    bool postFile(uint64_t connectionId, std::unique_ptr<FileDelivery>& file);
    // Wakes the loop without a note (to make it look at its stop flag).
    void wake();
    // Takes every waiting note and clears the wake-up.
    void takeAll(std::vector<Note>& out);
    // Refuses further notes; those waiting stay for a last takeAll (a file among them is owed its callback).
    void close();

private:
    std::mutex m_mutex;  // guards m_notes and m_open
    std::vector<Note> m_notes;
    bool m_open = true;
    const int m_eventFd;
};

}  // namespace netutils

#endif
