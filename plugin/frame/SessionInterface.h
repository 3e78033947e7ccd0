// The plug-in's face of every session that the gateway may send data to. The
// gateway holds the IServerData base and passes it back to IServer::Send.
#ifndef HTTPWRAPPER_FRAME_SESSIONINTERFACE_H
#define HTTPWRAPPER_FRAME_SESSIONINTERFACE_H

#include <atomic>

#include <ProtocolWrapper.h>
#include <zrt/zrt.h>

namespace HttpWrapper {

class ISessionInterface : public PROTOCOL_WRAPPER::IServerData {
public:
    ~ISessionInterface() override {}
    // index and dataType as the gateway gives them (STREAM_HEAD, STREAM_DATA,
    // STREAM_INFO, STREAM_END of ProtocolWrapper.h).
    virtual int send(int index, int dataType, void* data, int length) = 0;

    // Never 0 and never given twice in the process's life, unlike the session's
    // address, which a later session may get: queued jobs name their session by it.
    ZRT_UINT64 serial() const { return m_serial; }

private:
    static ZRT_UINT64 nextSerial()
    {
        static std::atomic<ZRT_UINT64> last{0};
        return ++last;
    }

    const ZRT_UINT64 m_serial = nextSerial();
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SESSIONINTERFACE_H
