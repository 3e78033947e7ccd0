// A talk's pieces without sockets: the codec rule of the stream header, the
// device audio without a listener, and the manager's ageing. One talk per
// channel and the session id rule are pinned by the integration tests.
#include <gtest/gtest.h>

#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <ext/StreamBlockLayout.h>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/QumexAudioTalkSession.h"

using namespace HttpWrapper;

namespace {

int sendHeader(CQumexAudioTalkSession& talk, int index, const char* codec)
{
    std::string block(StreamBlock::kInfoSize, '\0');
    StreamBlock::writeCodecName(&block[0], codec);
    return talk.send(index, PROTOCOL_WRAPPER::STREAM_INFO, &block[0], static_cast<int>(block.size()));
}

// Empties the server's request queue (never started here) and returns the jobs.
std::vector<tagAsyncReq> takeQueuedJobs()
{
    std::vector<tagAsyncReq> jobs;
    CHttpServerWrapper* server = singleton<CHttpServerWrapper>::instance();
    while (tagAsyncReq* job = server->popAsyncReq()) {
        jobs.push_back(*job);
        delete[] job->pData;
        delete job;
    }
    return jobs;
}

}  // namespace

TEST(TalkSession, OnlyTheFirstStreamHeaderSetsThePacketSize)
{
    struct Case {
        const char* codec;
        int packetSize;
    } cases[] = {{"PCMU", 160}, {"PCMA", 160}, {"G7221", 80}, {"G726-16", 80}, {"pcmu", 0}, {"G726-32", 0}, {"", 0}};
    for (const Case& c : cases) {
        CQumexAudioTalkSession talk(nullptr, nullptr);
        EXPECT_EQ(sendHeader(talk, 0, c.codec), 0);
        EXPECT_EQ(talk.getPacketSize(), c.packetSize) << c.codec;
    }

    CQumexAudioTalkSession talk(nullptr, nullptr);
    ASSERT_EQ(sendHeader(talk, 1, "PCMU"), 0);  // a first header for slot 1 stores nothing
    EXPECT_EQ(talk.getPacketSize(), 0);
    sendHeader(talk, 0, "PCMU");  // later headers never recompute it
    EXPECT_EQ(talk.getPacketSize(), 0);
}

TEST(TalkSession, DeviceAudioWithoutAListenerIsRefusedButKeepsTheTalkAlive)
{
    CQumexAudioTalkSession talk(nullptr, nullptr);
    talk.increaseTimeoutCount();
    talk.increaseTimeoutCount();
    char packet[160] = {0};
    EXPECT_EQ(talk.send(0, PROTOCOL_WRAPPER::STREAM_DATA, packet, sizeof packet), -1);
    EXPECT_EQ(talk.getTimeoutCount(), 0);
    EXPECT_EQ(talk.send(0, 55, packet, sizeof packet), -1);  // unknown type
    EXPECT_EQ(talk.stop(), 0);                               // never started: nothing to do
}

TEST(TalkSessionManager, AnIdleTalkIsDestroyedAtTheSeventhPassAndOnlyOnce)
{
    CAudioTalkSessionMgr* talks = singleton<CAudioTalkSessionMgr>::instance();
    std::string url = "/QUMEX/System/TwoWayAudio/channels/2?indexType=httpPort&httpPort=80";
    auto talk = std::make_shared<CQumexAudioTalkSession>(nullptr, nullptr);
    talk->setRtspUrl(url);
    ASSERT_EQ(talks->addSession(url, talk), 0);
    takeQueuedJobs();
    for (int pass = 1; pass <= 6; ++pass) {
        talks->timeOutCheck();
        EXPECT_TRUE(takeQueuedJobs().empty()) << "pass " << pass;
    }
    talks->timeOutCheck();  // the seventh pass sees six idle passes
    talks->timeOutCheck();  // and every later one pushes again
    std::vector<tagAsyncReq> jobs = takeQueuedJobs();
    ASSERT_EQ(jobs.size(), 2u);
    EXPECT_TRUE(jobs[0].iCmdType == ASYNC_TALK_DESTROY && jobs[0].strKey == url && jobs[0].pSession == talk.get());

    EXPECT_EQ(talks->processHttpTalkDestroy(&jobs[0]), 0);
    EXPECT_EQ(talks->getTalkSessionCount(), 0u);
    EXPECT_EQ(talks->processHttpTalkDestroy(&jobs[1]), 0x1930F43);

    // A stale job does not destroy a later talk of the same channel.
    auto later = std::make_shared<CQumexAudioTalkSession>(nullptr, nullptr);
    ASSERT_EQ(talks->addSession(url, later), 0);
    EXPECT_EQ(talks->processHttpTalkDestroy(&jobs[1]), 0x1930F43);
    EXPECT_EQ(talks->getSession(url), later);
    talks->removeSession(url);

    tagAsyncReq wrongType;
    wrongType.iCmdType = ASYNC_HTTP_DESTROY;
    EXPECT_EQ(talks->processHttpTalkDestroy(&wrongType), 0x1930811);
    EXPECT_EQ(talks->processHttpTalkDestroy(nullptr), 0x1930811);
}
