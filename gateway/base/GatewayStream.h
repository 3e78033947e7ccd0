// What the gateway's server sink holds for each handle OnOpen gave the plug-in:
// a download or a talk. The sink passes the plug-in's calls on to it; what
// differs between the two kinds lives in their classes, not in the sink.
#ifndef GATEWAY_GATEWAY_STREAM_H
#define GATEWAY_GATEWAY_STREAM_H

#include <cstdint>

class GatewayStream {
public:
    enum class Kind { kDownload, kTalk };

    virtual ~GatewayStream() = default;

    virtual Kind kind() const = 0;
    virtual uint64_t id() const = 0;
    // pushStream: takes what the delivery needs. 0, or the RestError code the plug-in gets.
    virtual int prepare() = 0;
    // OnStart: starts the delivery once. 0, or the RestError code the plug-in gets.
    virtual int start() = 0;
    // OnStop, and before the stream is released: no Send follows the return.
    // Safe to call from several threads and more than once.
    virtual void stop() = 0;
    // OnInputData: what the client says. A stream that does not listen answers -1.
    virtual int input(int dataType, const void* data, int length) = 0;
};

#endif  // GATEWAY_GATEWAY_STREAM_H
