#include "FakeGateway.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <chrono>

int FakeFilterChain::Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
                             PROTOCOL_FILTER::IConnectContext* context)
{
    SeenRequest seen;
    PROTOCOL_FILTER::IProtocolRequestLine* line = request->GetProtocolRequestLine();
    seen.method = line->GetProtocolMethod();
    seen.url = line->GetProtocolURL();
    seen.name = line->GetProtocolName();
    seen.version = line->GetProtocolVersion();
    for (PROTOCOL_FILTER::IProtocolHead* head = request->GetFirstHead(); head != nullptr;
         head = request->GetNextHead()) {
        seen.heads.emplace_back(head->GetHeadName(), head->GetHeadValue());
    }
    seen.needAuth = request->bNeedAuth();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_seen.push_back(seen);
    }
    if (seen.url.find("/TwoWayAudio/") != std::string::npos) {
        int answer = talkResult;
        if (answer != 0) {
            context->SetStatusCode(answer == 0x1930844 ? 0 : talkStatusOnRefusal.load());
        }
        return answer;
    }
    size_t talk = seen.url.find("/dac/talk/");
    if (talk != std::string::npos) {
        int answer = describeResult;
        if (answer == 0) {
            context->SetFilterURL("fake://filter");
            context->SetMediaURL(("fake://talk/" + seen.url.substr(talk + 10)).c_str());
        }
        return answer;
    }
    int answer = result;
    if (answer != 0) {
        context->SetStatusCode(statusOnRefusal);
        return answer;
    }
    context->SetFilterURL("fake://filter");
    context->SetMediaURL(mediaUrl.c_str());
    return 0;
}

std::vector<SeenRequest> FakeFilterChain::seen()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_seen;
}

struct FakeServerSink::Stream {
    PROTOCOL_WRAPPER::IServerData* data = nullptr;
    bool talk = false;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::string buffer;  // one block of a generated recording
};

void FakeServerSink::syntheticBytes(unsigned long long offset, char* out, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        unsigned long long position = offset + i;
        out[i] = static_cast<char>((position * 131u + (position >> 11) * 7u + (position >> 23)) & 0xFF);
    }
}

int FakeServerSink::OnOpen(const char*, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data, void** sessionHandle)
{
    if (openResult != 0) {
        return openResult;
    }
    Stream* stream = new Stream;
    stream->data = data;
    stream->talk = mediaUrl != nullptr && strncmp(mediaUrl, "fake://talk/", 12) == 0;
    *sessionHandle = stream;
    ++m_open;
    ++m_opened;
    if (stream->talk) {
        ++m_talksOpen;
    }
    return 0;
}

int FakeServerSink::OnStart(void* sessionHandle, int)
{
    Stream* stream = static_cast<Stream*>(sessionHandle);
    if (stream->talk) {
        // As the reference gateway does: the codec is known before the open is answered.
        char header[1620];
        memset(header, 0, sizeof header);
        snprintf(header + 300, sizeof header - 300, "%s", talkCodec.c_str());
        m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_INFO, header, sizeof header);
    }
    if (!silent) {
        stream->thread = stream->talk ? std::thread(&FakeServerSink::speak, this, stream)
                                      : std::thread(&FakeServerSink::deliver, this, stream);
    }
    return 0;
}

void FakeServerSink::speak(Stream* stream)
{
    std::string packet(static_cast<size_t>(talkPacketSize), '\0');
    auto next = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < talkAudioBytes && !stream->stop; offset += packet.size()) {
        size_t piece = std::min(packet.size(), talkAudioBytes - offset);
        for (size_t i = 0; i < piece; ++i) {
            packet[i] = deviceAudioByte(offset + i);
        }
        while (m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_DATA, &packet[0], static_cast<int>(piece)) !=
                   0 &&
               talkRetryUntilAccepted && !stream->stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ++m_devicePackets;
        if (talkPacketIntervalMs > 0) {
            next += std::chrono::milliseconds(talkPacketIntervalMs);
            while (!stream->stop && std::chrono::steady_clock::now() < next) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }
}

int FakeServerSink::OnInputData(void* sessionHandle, int, int dataType, void* data, int length)
{
    std::lock_guard<std::mutex> guard(m_inputLock);
    if (dataType == PROTOCOL_WRAPPER::STREAM_DATA && data != nullptr && length > 0) {
        m_clientAudio.append(static_cast<const char*>(data), static_cast<size_t>(length));
        m_clientPackets.push_back(length);
    }
    return 0;
}

std::string FakeServerSink::clientAudio()
{
    std::lock_guard<std::mutex> guard(m_inputLock);
    return m_clientAudio;
}

std::vector<int> FakeServerSink::clientPacketSizes()
{
    std::lock_guard<std::mutex> guard(m_inputLock);
    return m_clientPackets;
}

bool FakeServerSink::waitForClientAudio(size_t bytes, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (clientAudio().size() >= bytes) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return clientAudio().size() >= bytes;
}

void FakeServerSink::deliver(Stream* stream)
{
    char info[1620];
    memset(info, 0, sizeof info);
    unsigned long long length = recording.empty() ? syntheticSize : recording.size();
    unsigned int high = static_cast<unsigned int>(length >> 32);
    unsigned int low = static_cast<unsigned int>(length);
    memcpy(info + 1612, &high, 4);
    memcpy(info + 1616, &low, 4);
    m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_INFO, info, sizeof info);
    int result = m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_HEAD, &streamHead[0],
                                static_cast<int>(streamHead.size()));
    for (unsigned long long offset = 0; result == 0 && !stream->stop && offset < length; offset += blockSize) {
        size_t piece = static_cast<size_t>(std::min<unsigned long long>(blockSize, length - offset));
        char* block;
        if (recording.empty()) {
            stream->buffer.resize(piece);
            syntheticBytes(offset, &stream->buffer[0], piece);
            block = &stream->buffer[0];
        } else {
            block = &recording[static_cast<size_t>(offset)];
        }
        result = m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_DATA, block, static_cast<int>(piece));
    }
    if (result == 0 && !stream->stop) {
        m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_END, nullptr, 0);
    }
}

int FakeServerSink::OnStop(void* sessionHandle, int)
{
    static_cast<Stream*>(sessionHandle)->stop = true;
    return 0;
}

// After OnClose returns, nothing is sent for this stream any more.
int FakeServerSink::OnClose(void* sessionHandle)
{
    Stream* stream = static_cast<Stream*>(sessionHandle);
    stream->stop = true;
    if (stream->thread.joinable()) {
        stream->thread.join();
    }
    if (stream->talk) {
        --m_talksOpen;
    }
    delete stream;
    ++m_closed;
    --m_open;
    return 0;
}
