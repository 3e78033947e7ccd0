// The plug-in's face of every session that the gateway may send data to. The
// gateway holds the IServerData base and passes it back to IServer::Send.
#ifndef HTTPWRAPPER_FRAME_SESSIONINTERFACE_H
#define HTTPWRAPPER_FRAME_SESSIONINTERFACE_H

#include <ProtocolWrapper.h>

namespace HttpWrapper {

class ISessionInterface : public PROTOCOL_WRAPPER::IServerData {
public:
    ~ISessionInterface() override {}
    // index and dataType as the gateway gives them (STREAM_HEAD, STREAM_DATA,
    // STREAM_INFO, STREAM_END of ProtocolWrapper.h).
    virtual int send(int index, int dataType, void* data, int length) = 0;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SESSIONINTERFACE_H
