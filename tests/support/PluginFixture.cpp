#include "PluginFixture.h"

#include <zrt/zrt.h>

#include "frame/HttpServerWrapper.h"
#include "session/HttpSessionMgr.h"

using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::CHttpSessionMgr;
using HttpWrapper::singleton;

const char PluginFixture::kDevIndex[] = "0f4c9a6e-3b2d-4e8f-9a1b-7c6d5e4f3a2b";

int TestUtilitySink::GetConfigValue(const std::string& key, std::string& value)
{
    auto found = config.find(key);
    if (found == config.end()) {
        return -1;
    }
    value = found->second;
    return 0;
}

int TestUtilitySink::SetConfigValue(const std::string& key, const std::string& value)
{
    config[key] = value;
    return 0;
}

void PluginFixture::SetUp()
{
    ZRT_InitEx();
    utilitySink.config["AuthRealm"] = "test-realm";
    g_pHttpProtocolWrapperUtilitySink = &utilitySink;
    CHttpServerWrapper* wrapper = singleton<CHttpServerWrapper>::instance();
    wrapper->setProtocolFilterChain(&filter);
    ASSERT_EQ(wrapper->startServer("http://127.0.0.1:0?recvTimeout=5000&work_thread=4", &sink), 0);
    server = wrapper;
    sink.setServer(server);
    port = singleton<CHttpSessionMgr>::instance()->getListenPort();
    ASSERT_GT(port, 0);
}

void PluginFixture::TearDown()
{
    if (server != nullptr) {
        singleton<CHttpServerWrapper>::instance()->stopServer();
        singleton<CHttpServerWrapper>::free();
        server = nullptr;
    }
    EXPECT_EQ(sink.openStreams(), 0) << "a gateway stream outlived its client";
    g_pHttpProtocolWrapperUtilitySink = nullptr;
    ZRT_FiniEx();
}

bool PluginFixture::waitIdle(int timeoutMs)
{
    CHttpSessionMgr* sessions = singleton<CHttpSessionMgr>::instance();
    ZRT_UINT64 deadline = ZRT_GetTimeTick64() + static_cast<ZRT_UINT64>(timeoutMs);
    while (ZRT_GetTimeTick64() < deadline) {
        if (sessions->getHttpSessionCount() == 0 && sessions->getDownloadNum() == 0 && sink.openStreams() == 0) {
            return true;
        }
        ZRT_Sleep(10);
    }
    return false;
}

std::string PluginFixture::digestHeader(const std::string& user, const std::string& uri)
{
    return "Authorization: Digest username=\"" + user + "\", realm=\"test-realm\", nonce=\"6e6f6e6365\", uri=\"" + uri +
           "\", response=\"0123456789abcdef0123456789abcdef\", qop=auth, nc=00000001, cnonce=\"c\"\r\n";
}

std::string PluginFixture::jsonDownloadTarget() const
{
    return std::string("/QUMEX/ContentMgmt/download?format=json&devIndex=") + kDevIndex;
}

std::string PluginFixture::jsonDownloadBody(const std::string& query)
{
    return "{\"downloadRequest\":{\"playbackURI\":\"rtsp://10.0.0.5:554/Streaming/playback?devIndex=" +
           std::string(kDevIndex) + "&starttime=20260101T000000Z&endtime=20260101T010000Z" + query + "\"}}";
}

std::string PluginFixture::xmlDownloadBody(const std::string& uri)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><downloadRequest><playbackURI>" + uri +
           "</playbackURI></downloadRequest>";
}
