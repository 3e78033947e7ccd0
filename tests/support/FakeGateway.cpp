#include "FakeGateway.h"

#include <string.h>

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
    std::thread thread;
    std::atomic<bool> stop{false};
    std::string buffer;  // one block of a generated recording
};

void FakeServerSink::syntheticBytes(unsigned long long offset, char* out, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        unsigned long long position = offset + i;
        out[i] = (char)((position * 131u + (position >> 11) * 7u + (position >> 23)) & 0xFF);
    }
}

int FakeServerSink::OnOpen(const char*, const char*, PROTOCOL_WRAPPER::IServerData* data, void** sessionHandle)
{
    if (openResult != 0) {
        return openResult;
    }
    Stream* stream = new Stream;
    stream->data = data;
    *sessionHandle = stream;
    ++m_open;
    ++m_opened;
    return 0;
}

int FakeServerSink::OnStart(void* sessionHandle, int)
{
    Stream* stream = static_cast<Stream*>(sessionHandle);
    stream->thread = std::thread(&FakeServerSink::deliver, this, stream);
    return 0;
}

void FakeServerSink::deliver(Stream* stream)
{
    char info[1620];
    memset(info, 0, sizeof info);
    unsigned long long length = recording.empty() ? syntheticSize : recording.size();
    unsigned int high = (unsigned int)(length >> 32);
    unsigned int low = (unsigned int)length;
    memcpy(info + 1612, &high, 4);
    memcpy(info + 1616, &low, 4);
    m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_INFO, info, sizeof info);
    int result = m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_HEAD, &streamHead[0], (int)streamHead.size());
    for (unsigned long long offset = 0; result == 0 && !stream->stop && offset < length; offset += blockSize) {
        size_t piece = (size_t)std::min<unsigned long long>(blockSize, length - offset);
        char* block;
        if (recording.empty()) {
            stream->buffer.resize(piece);
            syntheticBytes(offset, &stream->buffer[0], piece);
            block = &stream->buffer[0];
        } else {
            block = &recording[(size_t)offset];
        }
        result = m_server->Send(stream->data, 0, PROTOCOL_WRAPPER::STREAM_DATA, block, (int)piece);
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
    delete stream;
    ++m_closed;
    --m_open;
    return 0;
}
