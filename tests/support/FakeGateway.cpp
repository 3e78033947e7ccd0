#include "FakeGateway.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <ext/DeliveryRequest.h>

#include <algorithm>
#include <chrono>

bool eventually(const std::function<bool()>& condition, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

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
    size_t describe = seen.url.find("/dac/talk/");
    bool talk = seen.url.find("/TwoWayAudio/") != std::string::npos;
    int answer = talk ? talkResult.load() : describe != std::string::npos ? describeResult.load() : result.load();
    if (answer != 0 && answer != kTalkAccepted) {
        context->SetStatusCode(statusOnRefusal);
    } else if (answer == 0) {
        context->SetFilterURL("fake://filter");
        context->SetMediaURL(describe == std::string::npos ? "fake://media" : "fake://talk");
    }
    return answer;
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
    FakeServerSink* sink = nullptr;
    std::atomic<int> deliveries{0};      // requests the plug-in took
    std::atomic<int> deliveredCalls{0};  // their callbacks
};

std::string FakeServerSink::recordingBytes(unsigned long long offset, size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        unsigned long long position = offset + i;
        bytes[i] = static_cast<char>((position * 131u + (position >> 11) * 7u + (position >> 23)) & 0xFF);
    }
    return bytes;
}

int FakeServerSink::OnOpen(const char*, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data, void** sessionHandle)
{
    if (openResult != 0) {
        return openResult;
    }
    Stream* stream = new Stream;
    stream->data = data;
    stream->sink = this;
    stream->talk = mediaUrl != nullptr && strcmp(mediaUrl, "fake://talk") == 0;
    *sessionHandle = stream;
    ++m_open;
    ++m_opened;
    m_talksOpen += stream->talk ? 1 : 0;
    return 0;
}

int FakeServerSink::OnStart(void* sessionHandle, int)
{
    Stream* stream = static_cast<Stream*>(sessionHandle);
    if (stream->talk) {
        // As the reference gateway does: the codec is known before the open is answered.
        char header[StreamBlock::kInfoSize] = {};
        StreamBlock::writeCodecName(header, talkCodec.c_str());
        m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_INFO, header, sizeof header);
    }
    if (!silent) {
        stream->thread = std::thread(stream->talk ? &FakeServerSink::speak : &FakeServerSink::deliver, this, stream);
    }
    return 0;
}

void FakeServerSink::speak(Stream* stream)
{
    std::string packet(160, '\0');  // its buffer is reused for every packet
    auto next = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < talkAudioBytes && !stream->stop; offset += 160) {
        const std::string audio = deviceAudio(std::min<size_t>(160, talkAudioBytes - offset), offset);
        packet.assign(audio.data(), audio.size());
        int result;
        while ((result = m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_DATA, &packet[0],
                                        static_cast<int>(packet.size()))) != 0 &&
               !stream->stop) {
            if (result == kBacklogRefused) {
                talkPacketsRefusedByBacklog++;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_until(next += std::chrono::milliseconds(talkPacketIntervalMs));
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

void FakeServerSink::deliver(Stream* stream)
{
    char info[StreamBlock::kInfoSize] = {};
    StreamBlock::writeFileLength(info, recordingSize);
    m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_INFO, info, sizeof info);
    std::string block = streamHead;
    int result =
        m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_HEAD, &block[0], static_cast<int>(block.size()));
    if (result == 0 && deliverFiles && handOver(stream)) {
        return;  // the plug-in sends the rest, the stream end included
    }
    for (unsigned long long offset = 0; result == 0 && !stream->stop && offset < recordingSize; offset += blockSize) {
        if (abortAfter >= 0 && offset >= static_cast<unsigned long long>(abortAfter.load())) {
            m_server->Send(stream->data, 0, HPW_STREAM_ABORT, nullptr, 0);
            return;
        }
        block = recordingBytes(offset,
                               static_cast<size_t>(std::min<unsigned long long>(blockSize, recordingSize - offset)));
        result =
            m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_DATA, &block[0], static_cast<int>(block.size()));
    }
    lastDeliveryResult = result;
    if (result == 0 && !stream->stop) {
        m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_END, nullptr, 0);
    }
}

bool FakeServerSink::handOver(Stream* stream)
{
    char path[] = "/tmp/fake-recording-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        return false;
    }
    unlink(path);
    for (unsigned long long offset = 0; offset < recordingSize; offset += 1 << 20) {
        const std::string piece =
            recordingBytes(offset, static_cast<size_t>(std::min<unsigned long long>(1 << 20, recordingSize - offset)));
        if (pwrite(fd, piece.data(), piece.size(), static_cast<off_t>(offset)) != static_cast<ssize_t>(piece.size())) {
            close(fd);
            return false;
        }
    }
    PROTOCOL_WRAPPER::DeliveryRequest request{};
    request.size = sizeof request;
    request.fd = badRequest ? -1 : fd;
    request.offset = 0;
    request.length = recordingSize;
    request.blockSize = static_cast<uint32_t>(blockSize);
    request.minRate = minRate;
    request.minRateSeconds = minRateSeconds;
    request.onDone = &FakeServerSink::onDelivered;
    request.context = stream;
    const int answer = m_server->SendMSG(stream->data, PROTOCOL_WRAPPER::MSG_DELIVER_FILE, &request, sizeof request);
    lastDeliveryAnswer = answer;
    close(fd);  // the plug-in holds its own descriptor
    if (answer == 0) {
        ++stream->deliveries;
    }
    return answer == 0;
}

void FakeServerSink::onDelivered(void* context, int outcome, uint64_t bytes)
{
    Stream* stream = static_cast<Stream*>(context);
    FakeServerSink* self = stream->sink;
    if (stream->stop) {
        ++self->deliveryOrderFaults;  // OnStop came first
    }
    ++stream->deliveredCalls;
    self->lastDeliveredBytes = bytes;
    std::lock_guard<std::mutex> guard(self->m_inputLock);
    self->m_deliveryOutcomes.push_back(outcome);
}

std::vector<int> FakeServerSink::deliveryOutcomes()
{
    std::lock_guard<std::mutex> guard(m_inputLock);
    return m_deliveryOutcomes;
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
    m_talksOpen -= stream->talk ? 1 : 0;
    if (stream->deliveredCalls != stream->deliveries) {
        ++deliveryOrderFaults;  // a taken delivery had no callback (or more than one) before OnClose
    }
    delete stream;
    --m_open;
    return 0;
}
