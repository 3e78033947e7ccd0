// The process-wide registry of open two-way audio talks, keyed by talk URL
// ("/QUMEX/System/TwoWayAudio/channels/<n>?indexType=httpPort&httpPort=<port>"),
// so one channel on one port has at most one talk. Talks are added by the open
// request, found by the close request and by the raw audio channel, aged by the
// time-out thread and torn down by queued destroy jobs.
//
// The table's lock order (SessionTable.h): a talk is stopped only after it has
// left the table, outside its mutex.
#ifndef HTTPWRAPPER_TALK_AUDIOTALKSESSIONMGR_H
#define HTTPWRAPPER_TALK_AUDIOTALKSESSIONMGR_H

#include <memory>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"
#include "frame/SessionTable.h"
#include "frame/singleton.h"

namespace HttpWrapper {

class CQumexAudioTalkSession;

class CAudioTalkSessionMgr : public singleton<CAudioTalkSessionMgr> {
public:
    CAudioTalkSessionMgr();
    ~CAudioTalkSessionMgr() override;

    int start(const char* url, PROTOCOL_WRAPPER::IServerSink* sink);
    int stop();  // leaves the talks in place; see closeAll
    int setProtocolFilterChain(PROTOCOL_FILTER::IProtocolFilter* chain);

    // -1 when a talk is registered under the URL already (the table is unchanged).
    int addSession(std::string& url, std::shared_ptr<CQumexAudioTalkSession> session);
    std::shared_ptr<CQumexAudioTalkSession> removeSession(std::string& url);
    std::shared_ptr<CQumexAudioTalkSession> getSession(std::string& url);
    // 0 when the URL is registered and the id is empty or equals the talk's; else -1.
    int checkSession(std::string& url, std::string& sessionId);
    unsigned int getTalkSessionCount();

    // One ageing pass (every cycle of the time-out thread): a talk that got no
    // device audio, or no client audio, for kIdlePasses passes is destroyed.
    void timeOutCheck();
    int processHttpTalkDestroy(tagAsyncReq* req);

    // Stops every talk still registered and empties the table: the server is
    // going away, and no talk may keep a gateway stream or a client socket open
    // past it.
    void closeAll();

    static const unsigned int kIdlePasses = 6;

private:
    int m_iRunning = 0;
    int m_iStarted = 0;
    PROTOCOL_WRAPPER::IServerSink* m_pServerSink = nullptr;
    PROTOCOL_FILTER::IProtocolFilter* m_pProtocolFilterChain = nullptr;
    CSessionTable<std::string, CQumexAudioTalkSession> m_sessions{ASYNC_TALK_DESTROY, &tagAsyncReq::strKey};
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_AUDIOTALKSESSIONMGR_H
