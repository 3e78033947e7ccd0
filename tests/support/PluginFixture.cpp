#include "PluginFixture.h"

#include <zrt/zrt.h>

#include "ProcessResources.h"
#include "frame/HttpServerWrapper.h"
#include "session/HttpSessionMgr.h"

using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::CHttpSessionMgr;
using HttpWrapper::singleton;

const char PluginFixture::kDevIndex[] = "0f4c9a6e-3b2d-4e8f-9a1b-7c6d5e4f3a2b";

PluginFixture::PluginFixture()
    : m_descriptorsBefore((testsupport::warmUpThreads(), testsupport::openDescriptorCount())),
      m_threadsBefore(testsupport::threadCount())
{
}

void PluginFixture::SetUp()
{
    ZRT_InitEx();
    utilitySink.config["AuthRealm"] = "test-realm";
    g_pHttpProtocolWrapperUtilitySink = &utilitySink;
    CHttpServerWrapper* wrapper = singleton<CHttpServerWrapper>::instance();
    wrapper->setProtocolFilterChain(&filter);
    ASSERT_EQ(wrapper->startServer(("http://127.0.0.1:0?" + serverParams).c_str(), &sink), 0);
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
    EXPECT_EQ(testsupport::openDescriptorCount(), m_descriptorsBefore) << "a socket outlived the server";
    EXPECT_EQ(testsupport::threadCount(), m_threadsBefore) << "a thread outlived the server";
}

bool PluginFixture::waitIdle()
{
    CHttpSessionMgr* sessions = singleton<CHttpSessionMgr>::instance();
    return eventually([&] {
        return sessions->getHttpSessionCount() == 0 && sessions->getDownloadNum() == 0 && sink.openStreams() == 0;
    });
}

std::string PluginFixture::jsonDownload(const std::string& query, const std::string& headers) const
{
    return request("POST", jsonTarget(),
                   "{\"downloadRequest\":{\"playbackURI\":\"rtsp://10.0.0.5:554/Streaming/playback?devIndex=" +
                       std::string(kDevIndex) + "&starttime=20260101T000000Z&endtime=20260101T010000Z" + query + "\"}}",
                   digestHeader() + headers);
}

std::string PluginFixture::xmlDownload(const std::string& uri) const
{
    return request("GET", "/QUMEX/ContentMgmt/download",
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?><downloadRequest><playbackURI>" + uri +
                       "</playbackURI></downloadRequest>");
}
