// Two-way audio through the real plug-in: open and close on the standard port,
// the raw audio channel's GET and PUT links, device audio to the client and
// client audio to the gateway in codec packets, every refusal, idle and
// hung-up talks, and nothing left behind afterwards.
#include <gtest/gtest.h>

#include <HttpProtocolWrapper.h>

#include <cstring>
#include <regex>

#include "PluginFixture.h"
#include "frame/HttpServerWrapper.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/HttpUnstandardSessionMgr.h"

using HttpWrapper::CAudioTalkSessionMgr;
using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::CHttpUnstandardSessionMgr;
using HttpWrapper::singleton;

namespace {

// What a client says: a stretch of the recordings' pattern, not the device's.
std::string spokenAudio(size_t length)
{
    return FakeServerSink::recordingBytes(0, length);
}

const char kGetHead[] = "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\n\r\n";
const char kPutHead[] = "HTTP/1.1 200 OK\r\n\r\n";

class Talk : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        audioPort = singleton<CHttpUnstandardSessionMgr>::instance()->getListenPort();
        ASSERT_GT(audioPort, 0);
    }

    void TearDown() override
    {
        PluginFixture::TearDown();
        EXPECT_EQ(singleton<CAudioTalkSessionMgr>::instance()->getTalkSessionCount(), 0u);
        EXPECT_EQ(sink.talkStreamsOpen(), 0);
    }

    RawResponse standardRequest(const std::string& verb, int channel, const std::string& credentials = digestHeader())
    {
        return exchange(request("PUT", "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel) + "/" + verb, "",
                                credentials));
    }

    // Opens a talk and returns its session id ("" when refused).
    std::string openTalk(int channel, RawResponse* reply = nullptr)
    {
        RawResponse response = standardRequest("open", channel);
        if (reply != nullptr) {
            *reply = response;
        }
        std::smatch id;
        bool found = std::regex_search(response.body, id, std::regex("<sessionId>([0-9]+)</sessionId>"));
        return response.status == 200 && found ? id[1].str() : std::string();
    }

    static std::string audioTarget(int channel, const std::string& sessionId)
    {
        return "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel) + "/audioData?sessionId=" + sessionId;
    }

    // Opens a link of the raw audio channel and returns its reply head (read as
    // long as the head of a link of its method).
    std::string openLink(nettest::TestClient& socket, const std::string& request)
    {
        EXPECT_TRUE(socket.connectTo(audioPort) && socket.send(request));
        return socket.receiveAll(5000, strlen(request[0] == 'G' ? kGetHead : kPutHead));
    }

    // A link's request: audio clients send "Content-Length: 0".
    std::string link(const std::string& method, int channel, const std::string& sessionId,
                     const std::string& credentials = digestHeader())
    {
        return request(method, audioTarget(channel, sessionId), "", credentials);
    }

    bool waitForTalks(unsigned int count)
    {
        return eventually([&] {
            return singleton<CAudioTalkSessionMgr>::instance()->getTalkSessionCount() == count &&
                   sink.talkStreamsOpen() == static_cast<int>(count);
        });
    }

    int audioPort = 0;
};

}  // namespace

TEST_F(Talk, OpenRelayBothWaysInCodecPacketsAndClose)
{
    sink.talkAudioBytes = 160 * 40;
    RawResponse opened;
    std::string sessionId = openTalk(1, &opened);
    ASSERT_FALSE(sessionId.empty()) << opened.raw;
    EXPECT_EQ(opened.header("content-type"), "application/xml");
    EXPECT_NE(opened.body.find("<TwoWayAudioSession version=\"2.0\" xmlns=\"urn:qumex:audio-api:2.0\">"),
              std::string::npos)
        << opened.body;
    EXPECT_EQ(GetServerConnectCount(server), 1);

    // What the gateway saw: the talk request with the Host's port, then the
    // device's DESCRIBE.
    const std::string portText = std::to_string(port);
    std::vector<SeenRequest> seen = filter.seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].method, "PUT");
    EXPECT_EQ(seen[0].url, "/QUMEX/System/TwoWayAudio/channels/1?indexType=httpPort&httpPort=" + portText +
                               "&clientIP=&username=admi");
    EXPECT_TRUE(seen[0].needAuth);
    EXPECT_EQ(seen[1].method, "DESCRIBE");
    EXPECT_EQ(seen[1].url, "rtsp://127.0.0.1:" + portText + "/dac/talk/1/TCP?indexType=httpPort&httpPort=" + portText);
    EXPECT_FALSE(seen[1].needAuth);

    // Device audio reaches the GET link byte-exact and in order.
    nettest::TestClient listen;
    ASSERT_EQ(openLink(listen, link("GET", 1, sessionId)), kGetHead);
    EXPECT_EQ(listen.receiveAll(5000, sink.talkAudioBytes), FakeServerSink::deviceAudio(sink.talkAudioBytes));

    // Client audio reaches the gateway in whole 160-byte packets, whatever the
    // segments: two packets ride with the request head, and each partial packet
    // waits for the bytes that complete it.
    const std::string audio = spokenAudio(960);
    nettest::TestClient speak;
    ASSERT_EQ(openLink(speak, link("PUT", 1, sessionId) + audio.substr(0, 330)), kPutHead);
    size_t sent = 330;
    for (size_t piece : {150, 161, 319}) {
        ASSERT_TRUE(sink.waitForClientAudio(sent / 160 * 160));  // the segment before is taken
        ASSERT_TRUE(speak.send(audio.substr(sent, piece)));
        sent += piece;
    }
    ASSERT_TRUE(sink.waitForClientAudio(audio.size()));
    EXPECT_EQ(sink.clientAudio(), audio);
    EXPECT_EQ(sink.clientPacketSizes(), std::vector<int>(6, 160));

    RawResponse closed = standardRequest("close", 1);
    EXPECT_EQ(closed.status, 200) << closed.raw;
    EXPECT_NE(closed.body.find("<subStatusCode>ok</subStatusCode>"), std::string::npos) << closed.body;
    EXPECT_TRUE(listen.waitForClose(5000));
    EXPECT_TRUE(speak.waitForClose(5000));
    EXPECT_TRUE(waitForTalks(0));
    EXPECT_EQ(GetServerConnectCount(server), 0);
}

TEST_F(Talk, NarrowAndUnknownCodecsPacketiseByTheirOwnRule)
{
    const struct {
        const char* codec;
        size_t bytes;
        std::vector<int> packets;
    } rows[] = {{"G726-16", 250, {80, 80, 80}}, {"OPUS", 37, {37}}};  // an unknown codec passes as it arrives
    std::vector<int> expected;
    for (int channel = 1; channel <= 2; ++channel) {
        const auto& row = rows[channel - 1];
        sink.talkCodec = row.codec;
        std::string sessionId = openTalk(channel);
        ASSERT_FALSE(sessionId.empty()) << row.codec;
        nettest::TestClient speak;
        ASSERT_EQ(openLink(speak, link("PUT", channel, sessionId) + spokenAudio(row.bytes)), kPutHead);
        expected.insert(expected.end(), row.packets.begin(), row.packets.end());
        ASSERT_TRUE(sink.waitForClientAudio(channel == 1 ? 240 : 277)) << row.codec;
        EXPECT_EQ(sink.clientPacketSizes(), expected) << row.codec;
    }
}

TEST_F(Talk, RefusalsOnTheStandardPortAndOfTheGateway)
{
    ASSERT_FALSE(openTalk(1).empty());
    const int kAccepted = FakeFilterChain::kTalkAccepted;
    const struct {
        const char* verb;
        int channel;
        int talkResult, statusOnRefusal, describeResult, openResult, pushResult;  // the gateway's answers
        int status;
        const char* subStatus;
    } rows[] = {
        {"open", 1, kAccepted, 0, 0, 0, 0, 403, "invalidOperation"},  // the channel's second open
        {"close", 7, kAccepted, 0, 0, 0, 0, 400, "badParameters"},    // a channel never opened
        // Credentials refused: the XML document takes its group's status, 403, not the 401 of the JSON form.
        {"open", 2, 0x40000003, 401, 0, 0, 0, 403, "badAuthorization"},
        {"open", 2, 0x30000014, 403, 0, 0, 0, 500, "internalError"},        // refused otherwise
        {"open", 2, kAccepted, 0, 0x30000014, 0, 0, 500, "internalError"},  // the device refuses the DESCRIBE
        {"open", 2, kAccepted, 0, 0, 0x1930811, 0, 500, "internalError"},   // OnOpen fails
        {"open", 2, kAccepted, 0, 0, 0, 0x1930811, 500, "internalError"},   // pushStream fails
    };
    for (const auto& row : rows) {
        filter.talkResult = row.talkResult;
        filter.statusOnRefusal = row.statusOnRefusal;
        filter.describeResult = row.describeResult;
        sink.openResult = row.openResult;
        sink.pushResult = row.pushResult;
        RawResponse response = standardRequest(row.verb, row.channel);
        EXPECT_EQ(response.status, row.status) << response.raw;
        EXPECT_EQ(response.header("content-type"), "application/xml");
        EXPECT_NE(response.body.find(std::string("<subStatusCode>") + row.subStatus), std::string::npos)
            << response.body;
        EXPECT_TRUE(waitForTalks(1)) << response.raw << ": a refused talk left a stream open, or closed another";
    }
    // Without credentials: the standard challenge, and nothing reaches the gateway.
    size_t seenBefore = filter.seen().size();
    RawResponse challenged = standardRequest("open", 3, "");
    EXPECT_EQ(challenged.status, 401);
    EXPECT_NE(challenged.header("www-authenticate"), "");
    EXPECT_EQ(filter.seen().size(), seenBefore);
}

TEST_F(Talk, RefusalsOnTheAudioChannel)
{
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    const char kForbidden[] = "HTTP/1.1 403 403 Forbidden";
    const char kUnauthorized[] = "HTTP/1.1 401 401 Unauthorized";
    const struct {
        std::string request;
        const char* statusLine;
    } rows[] = {
        {link("GET", 1, sessionId + "9"), kForbidden},  // a wrong session id
        {link("PUT", 2, sessionId), kForbidden},        // no talk on the channel
        {request("GET", "/QUMEX/Other"), kForbidden},
        {link("DELETE", 1, sessionId), kForbidden},
        {link("GET", 1, sessionId, ""), kUnauthorized},
        // The channel reads the head's fields only from a request that names its
        // length: audio clients send "Content-Length: 0".
        {"GET " + audioTarget(1, sessionId) + " HTTP/1.1\r\nHost: x\r\n" + digestHeader() + "\r\n", kUnauthorized},
    };
    for (const auto& row : rows) {
        nettest::TestClient client;
        ASSERT_TRUE(client.connectTo(audioPort) && client.send(row.request));
        std::string reply = client.receiveAll(5000);  // the channel closes after one request
        EXPECT_EQ(reply.compare(0, strlen(row.statusLine), row.statusLine), 0) << row.request << "\n" << reply;
        bool challenge = row.statusLine == kUnauthorized;
        EXPECT_NE(reply.find(challenge ? "<subStatusCode>badAuthorization" : "<subStatusCode>invalidOperation"),
                  std::string::npos)
            << reply;
        EXPECT_NE(reply.find(challenge ? "WWW-Authenticate: Digest qop=\"auth\", realm=\"test-realm\", nonce=\""
                                       : "<requestURL>"),
                  std::string::npos)
            << reply;
    }
    // A request the channel's parser refuses: answered and dropped at once.
    nettest::TestClient garbage;
    ASSERT_TRUE(garbage.connectTo(audioPort) && garbage.send(std::string(3000, 'x')));
    EXPECT_EQ(garbage.receiveAll(5000).compare(0, 24, "HTTP/1.1 400 Bad Request"), 0);

    // The talk itself is untouched, and an empty session id is let through:
    // clients that never learnt the id still reach their talk.
    EXPECT_TRUE(waitForTalks(1));
    nettest::TestClient anyId;
    EXPECT_EQ(openLink(anyId, link("GET", 1, "")), kGetHead);
}

TEST_F(Talk, TheHundredFirstTalkIsRefusedWhileAHundredRun)
{
    sink.talkAudioBytes = 320;
    std::vector<nettest::TestClient> links(200);  // a GET and a PUT link per talk
    for (int channel = 1; channel <= 100; ++channel) {
        std::string sessionId = openTalk(channel);
        ASSERT_FALSE(sessionId.empty()) << "channel " << channel;
        ASSERT_EQ(openLink(links[2 * channel - 2], link("GET", channel, sessionId)), kGetHead);
        ASSERT_EQ(openLink(links[2 * channel - 1], link("PUT", channel, sessionId) + spokenAudio(160)), kPutHead);
    }
    RawResponse refused;
    EXPECT_TRUE(openTalk(101, &refused).empty());
    EXPECT_NE(refused.body.find("<subStatusCode>noMoreTasksCanBeAdded</subStatusCode>"), std::string::npos)
        << refused.raw;
    EXPECT_EQ(GetServerConnectCount(server), 100);
    for (size_t i = 0; i < links.size(); i += 2) {
        EXPECT_EQ(links[i].receiveAll(5000, 320), FakeServerSink::deviceAudio(320)) << "talk " << i / 2 + 1;
    }
    ASSERT_TRUE(sink.waitForClientAudio(100 * 160));
    for (int channel = 1; channel <= 100; ++channel) {
        EXPECT_EQ(standardRequest("close", channel).status, 200) << "channel " << channel;
    }
    EXPECT_TRUE(waitForTalks(0));
}

TEST_F(Talk, AClientThatHangsUpItsPutLinkEndsTheTalk)
{
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    nettest::TestClient listen, speak;
    ASSERT_EQ(openLink(listen, link("GET", 1, sessionId)), kGetHead);
    ASSERT_EQ(openLink(speak, link("PUT", 1, sessionId) + spokenAudio(160)), kPutHead);
    ASSERT_TRUE(sink.waitForClientAudio(160));
    speak.close(true);  // vanishes with a reset
    EXPECT_TRUE(waitForTalks(0));
    EXPECT_TRUE(listen.waitForClose(5000));
}

TEST_F(Talk, AListenerThatHangsUpLeavesTheTalkToItsClose)
{
    sink.talkAudioBytes = 160 * 1000;
    sink.talkPacketIntervalMs = 2;
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    nettest::TestClient listen, again;
    ASSERT_EQ(openLink(listen, link("GET", 1, sessionId)), kGetHead);
    EXPECT_EQ(listen.receiveAll(5000, 1600).size(), 1600u);
    listen.close();
    // A new listener takes over the upload link.
    ASSERT_EQ(openLink(again, link("GET", 1, sessionId)), kGetHead);
    EXPECT_EQ(again.receiveAll(5000, 1600).size(), 1600u);
    EXPECT_TRUE(waitForTalks(1));
    EXPECT_EQ(standardRequest("close", 1).status, 200);
    EXPECT_TRUE(waitForTalks(0));
}

TEST_F(Talk, AnIdleTalkIsDestroyedByTheTimeOutPasses)
{
    singleton<CHttpServerWrapper>::instance()->setTimeoutCheckSleeps(1);  // a pass every 100 ms
    ASSERT_FALSE(openTalk(1).empty());
    // Neither the device nor a client sends anything: gone after seven passes.
    EXPECT_TRUE(waitForTalks(0));
    EXPECT_EQ(standardRequest("close", 1).status, 400);  // nothing left to close
}

namespace {

// Device audio for a client that reads, sent back to back while the gateway
// allows a backlog of one packet (g_iIocpDeepNum): by default the plug-in posts
// it without the limit, as a gateway written to the interface expects; the
// checkTalkBacklog parameter applies the limit (-180, the gateway sends again).
class TalkBacklog : public Talk {
protected:
    void SetUp() override
    {
        m_savedDeepNum = g_iIocpDeepNum;
        g_iIocpDeepNum = 1;
        Talk::SetUp();
    }
    void TearDown() override
    {
        Talk::TearDown();
        g_iIocpDeepNum = m_savedDeepNum;
    }

    // Relays 200 packets back to back to a listening client; returns whether
    // every byte arrived in order.
    bool relayDeviceAudio()
    {
        sink.talkAudioBytes = 160 * 200;
        std::string sessionId = openTalk(1);
        nettest::TestClient listen;
        bool exact = !sessionId.empty() && openLink(listen, link("GET", 1, sessionId)) == kGetHead &&
                     listen.receiveAll(10000, sink.talkAudioBytes) == FakeServerSink::deviceAudio(sink.talkAudioBytes);
        EXPECT_EQ(standardRequest("close", 1).status, 200);
        EXPECT_TRUE(waitForTalks(0));
        return exact;
    }

private:
    unsigned short m_savedDeepNum = 0;
};

class TalkBacklogChecked : public TalkBacklog {
protected:
    TalkBacklogChecked() { serverParams += "&checkTalkBacklog=1"; }
};

}  // namespace

TEST_F(TalkBacklog, DeviceAudioIsPostedWithoutTheBacklogLimitByDefault)
{
    EXPECT_TRUE(relayDeviceAudio());
    EXPECT_EQ(sink.talkPacketsRefusedByBacklog.load(), 0);
}

TEST_F(TalkBacklogChecked, TheServerUrlParameterAppliesTheBacklogLimitToDeviceAudio)
{
    EXPECT_TRUE(relayDeviceAudio());
    EXPECT_GT(sink.talkPacketsRefusedByBacklog.load(), 0);
}
