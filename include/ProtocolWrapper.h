/*
 * Gateway-side interfaces of a protocol plug-in: the server the gateway drives,
 * the gateway's sink that receives opened sessions and their data, and the
 * gateway's utility sink (configuration and log output).
 *
 * These declarations are a binary contract with the gateway: names, argument
 * lists and the order of virtual operations must not change.
 */
#ifndef PROTOCOL_WRAPPER_H
#define PROTOCOL_WRAPPER_H

#include <string>

namespace PROTOCOL_WRAPPER {

// A session of the plug-in as the gateway sees it; handed to OnOpen and passed
// back to IServer::Send.
class IServerData {
public:
    virtual ~IServerData() {}
};

// Data types of IServer::Send.
enum {
    STREAM_HEAD = 1,
    STREAM_DATA = 2,
    STREAM_INFO = 10,
    STREAM_END = 100,
};

class IServer {
public:
    virtual int Start() = 0;
    virtual int Stop() = 0;
    virtual int Send(IServerData* data, int index, int dataType, void* buffer, int length) = 0;
    virtual int SendMSG(IServerData* data, int msgType, void* buffer, int length) = 0;
    virtual ~IServer() {}
};

// Implemented by the gateway.
class IServerSink {
public:
    virtual int OnOpen(const char* filterUrl, const char* mediaUrl, IServerData* data, void** sessionHandle) = 0;
    virtual int OnClose(void* sessionHandle) = 0;
    virtual int pushStream(void* sessionHandle) = 0;
    virtual int OnStart(void* sessionHandle, int reserved) = 0;
    virtual int OnStop(void* sessionHandle, int reserved) = 0;
    virtual int OnInputData(void* sessionHandle, int index, int dataType, void* data, int length) = 0;
    virtual ~IServerSink() {}
};

}  // namespace PROTOCOL_WRAPPER

// Implemented by the gateway; the plug-in calls only GetConfigValue and OutputLog.
class IProtocolWrapperUtilitySink {
public:
    virtual const char* GetGatewayName() = 0;
    virtual int GetConfigValue(const std::string& key, std::string& value) = 0;  // 0 = found
    virtual int SetConfigValue(const std::string& key, const std::string& value) = 0;
    virtual int GetLogLevel() = 0;
    virtual void OutputLog(int level, const char* module, const char* text) = 0;
    virtual ~IProtocolWrapperUtilitySink() {}
};

#endif  // PROTOCOL_WRAPPER_H
