// A push-to-talk from the console: a client of the plug-in's talk API like any
// other. It opens the talk on the HTTP port as the signed-in user, links the
// raw audio channel's PUT (what the browser says, coded to the device's codec)
// and GET (what the device plays, decoded for the browser), and closes the
// talk when the browser lets go. run() opens the talk and then reads the
// device's audio; a thread of its own writes the browser's.
#ifndef GATEWAY_TALK_BRIDGE_H
#define GATEWAY_TALK_BRIDGE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "console/PluginClient.h"
#include "console/TalkTranscoder.h"

class Logger;

class TalkBridge {
public:
    // What the browser may say ahead of the device: past it, its audio is dropped.
    static constexpr size_t kMaxQueuedBytes = 16000;

    struct Setup {
        int httpPort = 0;
        int audioPort = 0;
        int channel = 0;
        const TalkCodec* codec = nullptr;
        PluginCredentials credentials;
        std::string label;  // for the log: device and user
    };
    // heard: the device's audio, from the bridge's reader thread. ended: once, when the talk is over
    // (why: "" for a talk the browser closed), from a thread of the bridge.
    // opened: the talk and its links are up.
    using Opened = std::function<void()>;
    using Heard = std::function<void(std::vector<int16_t> samples)>;
    using Ended = std::function<void(const std::string& why)>;

    TalkBridge(Setup setup, Opened opened, Heard heard, Ended ended, Logger& log);
    TalkBridge(const TalkBridge&) = delete;
    TalkBridge& operator=(const TalkBridge&) = delete;

    // The whole talk, on a thread of the caller's (which joins it): returns once the talk is closed.
    void run();
    // The browser's samples (8 kHz mono), from any thread.
    void speak(const int16_t* samples, size_t count);
    // The browser let go: what it said is sent, then the talk closes. Does not wait.
    void finish();
    // Cuts every wait now (the console stops).
    void cut();

private:
    void write(PluginConnection& link);
    bool openTalk(std::string& sessionId, std::string& error);
    void closeTalk();

    Setup m_setup;
    Opened m_opened;
    Heard m_heard;
    Ended m_ended;
    Logger& m_log;
    TalkTranscoder m_encoder;
    TalkTranscoder m_decoder;
    std::atomic<bool> m_cut{false};         // every connection's waits end
    std::atomic<bool> m_readerDone{false};  // the GET link's waits end
    std::mutex m_lock;                      // guards the three below
    std::condition_variable m_wake;
    std::deque<std::string> m_queue;
    size_t m_queuedBytes = 0;
    bool m_finishing = false;
};

#endif  // GATEWAY_TALK_BRIDGE_H
