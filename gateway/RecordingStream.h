// One opened download: the recording file and the thread that delivers it to
// the plug-in through IServer::Send as STREAM_INFO, STREAM_HEAD, the file in
// blocks, then STREAM_END. The plug-in's Send blocks while the client is slow,
// so the socket paces the thread; a non-zero result means the client is gone.
#ifndef GATEWAY_RECORDING_STREAM_H
#define GATEWAY_RECORDING_STREAM_H

#include <ProtocolWrapper.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "DownloadRange.h"
#include "MediaLibrary.h"

class Logger;

// What a stream sends of the body (the stream head, then the file).
struct StreamPart {
    ServedPart part;        // the whole body unless a range was asked for
    bool reported = false;  // the request asked for a range: STREAM_INFO says what is served
    std::string entityTag;
};

class RecordingStream {
public:
    // Takes over fd, which the stream closes. fileLength: the file's length when it was opened.
    RecordingStream(uint64_t id, const Recording& recording, int fd, uint64_t fileLength,
                    PROTOCOL_WRAPPER::IServerData* data, size_t blockSize, Logger& log,
                    const StreamPart& part = StreamPart());
    ~RecordingStream();
    RecordingStream(const RecordingStream&) = delete;
    RecordingStream& operator=(const RecordingStream&) = delete;

    uint64_t id() const { return m_id; }
    uint64_t fileLength() const { return m_fileLength; }
    uint64_t bytesSent() const { return m_bytesSent; }
    // The bytes of the body this stream sends.
    uint64_t bodyLength() const { return m_slices.headLength + m_slices.fileLength; }

    // Maps the one block buffer the stream reads into; false when memory is short.
    bool prepare();
    // Starts the delivery once: sends the opening blocks at once when the server is known,
    // and starts the thread that sends the rest (it waits for the server to be known).
    bool start(const std::atomic<PROTOCOL_WRAPPER::IServer*>& server);
    // Asks the delivery to stop and waits for its thread: no Send follows the return.
    // Safe to call from several threads and more than once.
    void stop();
    // How the delivery ended; meaningful after stop().
    std::string outcome();

private:
    // The delivery thread; openingSent: start() has sent STREAM_INFO and STREAM_HEAD already.
    void deliver(const std::atomic<PROTOCOL_WRAPPER::IServer*>* serverSlot, bool openingSent);
    // STREAM_INFO then STREAM_HEAD; false when the client is gone.
    bool sendOpening(PROTOCOL_WRAPPER::IServer* server);
    // The file in blocks, then STREAM_END; returns how the delivery ended.
    std::string deliverFile(PROTOCOL_WRAPPER::IServer* server);
    bool sendBlock(PROTOCOL_WRAPPER::IServer* server, int dataType, void* data, size_t length);

    const uint64_t m_id;
    const Recording m_recording;
    const int m_fd;
    const uint64_t m_fileLength;
    PROTOCOL_WRAPPER::IServerData* const m_data;  // the plug-in's session; valid until OnClose
    const size_t m_blockSize;
    Logger& m_log;
    const StreamPart m_part;
    const BodySlices m_slices;

    unsigned char* m_buffer = nullptr;  // m_blockSize bytes; used by the delivery thread only, once started
    std::atomic<bool> m_stopRequested;
    std::atomic<uint64_t> m_bytesSent;
    std::mutex m_controlLock;  // guards m_thread and m_started; held while joining
    std::thread m_thread;
    bool m_started;
    std::mutex m_outcomeLock;  // separate: the delivery thread writes the outcome while stop() joins it
    std::string m_outcome;
};

#endif  // GATEWAY_RECORDING_STREAM_H
