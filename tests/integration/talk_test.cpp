// Two-way audio through the real plug-in: open and close on the standard port,
// the raw audio channel's GET and PUT links, device audio to the client and
// client audio to the gateway in codec packets, every refusal, idle and
// hung-up talks, and nothing left behind afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <thread>

#include "PluginFixture.h"
#include "ProcessResources.h"
#include "TestClient.h"
#include "frame/HttpServerWrapper.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/HttpUnstandardSessionMgr.h"

using HttpWrapper::CAudioTalkSessionMgr;
using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::CHttpUnstandardSessionMgr;
using HttpWrapper::singleton;

namespace {

std::string clientAudioBytes(size_t length, size_t offset = 0)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>(((offset + i) * 13 + 5) & 0xFF);
    }
    return bytes;
}

std::string deviceAudio(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = FakeServerSink::deviceAudioByte(i);
    }
    return bytes;
}

// One link of the raw audio channel: the request, then the reply head, then audio.
struct AudioLink {
    nettest::TestClient socket;
    std::string head;
    std::string early;  // audio that came in the same read as the head

    bool open(int audioPort, const std::string& request)
    {
        if (!socket.connectTo(audioPort) || !socket.send(request)) {
            return false;
        }
        std::string received;
        while (received.find("\r\n\r\n") == std::string::npos) {
            std::string piece = socket.receiveSome(4096, 5000);
            if (piece.empty()) {
                head = received;
                return false;
            }
            received += piece;
        }
        size_t end = received.find("\r\n\r\n") + 4;
        head = received.substr(0, end);
        early = received.substr(end);
        return true;
    }

    std::string receive(size_t bytes, int timeoutMs = 5000)
    {
        std::string data = early.substr(0, bytes);
        early.erase(0, data.size());
        return data + socket.receiveAll(timeoutMs, bytes - data.size());
    }
};

class Talk : public PluginFixture {
protected:
    // A thread made and joined first: a sanitizer's runtime starts its own
    // helper thread with the process's first one, which is not the server's.
    Talk()
        : m_warmUp([] {}),
          m_descriptorsBefore((m_warmUp.join(), testsupport::openDescriptorCount())),
          m_threadsBefore(testsupport::threadCount())
    {
    }

    void SetUp() override
    {
        PluginFixture::SetUp();
        audioPort = singleton<CHttpUnstandardSessionMgr>::instance()->getListenPort();
        ASSERT_GT(audioPort, 0);
        sink.talkRetryUntilAccepted = true;
    }

    void TearDown() override
    {
        PluginFixture::TearDown();
        EXPECT_EQ(singleton<CAudioTalkSessionMgr>::instance()->getTalkSessionCount(), 0u);
        EXPECT_EQ(sink.talkStreamsOpen(), 0);
        EXPECT_EQ(testsupport::openDescriptorCount(), m_descriptorsBefore) << "a socket outlived the server";
        EXPECT_EQ(testsupport::threadCount(), m_threadsBefore) << "a thread outlived the server";
    }

    std::string host() const { return "127.0.0.1:" + std::to_string(port); }

    static std::string talkRequest(const std::string& method, const std::string& target, const std::string& hostValue,
                                   const std::string& credentials, const std::string& body = "")
    {
        return method + " " + target + " HTTP/1.1\r\nHost: " + hostValue + "\r\n" + credentials +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    RawResponse standardRequest(const std::string& verb, int channel, const std::string& credentials = digestHeader())
    {
        RawHttpClient client(port);
        std::string target = "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel) + "/" + verb;
        return client.exchange(talkRequest("PUT", target, host(), credentials));
    }

    // Opens a talk and returns its session id ("" when refused).
    std::string openTalk(int channel, RawResponse* reply = nullptr)
    {
        RawResponse response = standardRequest("open", channel);
        if (reply != nullptr) {
            *reply = response;
        }
        std::smatch id;
        if (response.status != 200 ||
            !std::regex_search(response.body, id, std::regex("<sessionId>([0-9]+)</sessionId>"))) {
            return std::string();
        }
        return id[1];
    }

    static std::string audioTarget(int channel, const std::string& sessionId)
    {
        return "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel) + "/audioData?sessionId=" + sessionId;
    }

    std::string linkRequest(const std::string& method, int channel, const std::string& sessionId,
                            const std::string& credentials = digestHeader())
    {
        return talkRequest(method, audioTarget(channel, sessionId), host(), credentials);
    }

    bool waitForTalks(unsigned int count, int timeoutMs = 5000)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            if (singleton<CAudioTalkSessionMgr>::instance()->getTalkSessionCount() == count &&
                sink.talkStreamsOpen() == static_cast<int>(count)) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    int audioPort = 0;

private:
    std::thread m_warmUp;
    int m_descriptorsBefore;
    int m_threadsBefore;
};

const char kGetHead[] = "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\n\r\n";
const char kPutHead[] = "HTTP/1.1 200 OK\r\n\r\n";

}  // namespace

TEST_F(Talk, OpenRelayBothWaysInCodecPacketsAndClose)
{
    sink.talkAudioBytes = 160 * 40;
    RawResponse opened;
    std::string sessionId = openTalk(1, &opened);
    ASSERT_FALSE(sessionId.empty()) << opened.raw;
    EXPECT_EQ(opened.headers["content-type"], "application/xml");
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
    AudioLink listen;
    ASSERT_TRUE(listen.open(audioPort, linkRequest("GET", 1, sessionId))) << listen.head;
    EXPECT_EQ(listen.head, kGetHead);
    EXPECT_EQ(listen.receive(sink.talkAudioBytes), deviceAudio(sink.talkAudioBytes));

    // Client audio reaches the gateway in whole 160-byte packets, whatever the
    // segments: the first byte rides with the request head.
    const std::string audio = clientAudioBytes(960);
    AudioLink speak;
    ASSERT_TRUE(speak.open(audioPort, linkRequest("PUT", 1, sessionId) + audio.substr(0, 1))) << speak.head;
    EXPECT_EQ(speak.head, kPutHead);
    size_t sent = 1;
    for (size_t piece : {159, 161, 500, 139}) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // separate segments
        ASSERT_TRUE(speak.socket.send(audio.substr(sent, piece)));
        sent += piece;
    }
    ASSERT_TRUE(sink.waitForClientAudio(audio.size()));
    EXPECT_EQ(sink.clientAudio(), audio);
    EXPECT_EQ(sink.clientPacketSizes(), std::vector<int>(6, 160));

    RawResponse closed = standardRequest("close", 1);
    EXPECT_EQ(closed.status, 200) << closed.raw;
    EXPECT_NE(closed.body.find("<subStatusCode>ok</subStatusCode>"), std::string::npos) << closed.body;
    EXPECT_TRUE(listen.socket.waitForClose(5000));
    EXPECT_TRUE(speak.socket.waitForClose(5000));
    EXPECT_TRUE(waitForTalks(0));
    EXPECT_EQ(GetServerConnectCount(server), 0);
}

TEST_F(Talk, APartialPacketWaitsForTheBytesThatCompleteIt)
{
    std::string sessionId = openTalk(2);
    ASSERT_FALSE(sessionId.empty());
    const std::string audio = clientAudioBytes(500);
    AudioLink speak;
    // 500 bytes in the same segment as the head: three packets now, 20 bytes held.
    ASSERT_TRUE(speak.open(audioPort, linkRequest("PUT", 2, sessionId) + audio));
    ASSERT_TRUE(sink.waitForClientAudio(480));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(sink.clientAudio(), audio.substr(0, 480));
    ASSERT_TRUE(speak.socket.send(clientAudioBytes(140, 500)));
    ASSERT_TRUE(sink.waitForClientAudio(640));
    EXPECT_EQ(sink.clientAudio(), audio + clientAudioBytes(140, 500));
    EXPECT_EQ(sink.clientPacketSizes(), std::vector<int>(4, 160));
}

TEST_F(Talk, NarrowAndUnknownCodecsPacketiseByTheirOwnRule)
{
    sink.talkCodec = "G726-16";
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    AudioLink speak;
    ASSERT_TRUE(speak.open(audioPort, linkRequest("PUT", 1, sessionId) + clientAudioBytes(250)));
    ASSERT_TRUE(sink.waitForClientAudio(240));
    EXPECT_EQ(sink.clientPacketSizes(), std::vector<int>(3, 80));
    EXPECT_EQ(standardRequest("close", 1).status, 200);
    ASSERT_TRUE(waitForTalks(0));

    // An unknown codec is passed on as it arrives.
    sink.talkCodec = "OPUS";
    sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    AudioLink other;
    ASSERT_TRUE(other.open(audioPort, linkRequest("PUT", 1, sessionId) + clientAudioBytes(37)));
    ASSERT_TRUE(sink.waitForClientAudio(240 + 37));
    EXPECT_EQ(sink.clientPacketSizes().back(), 37);
}

TEST_F(Talk, RefusalsOnTheStandardPort)
{
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    struct Case {
        const char* what;
        std::function<RawResponse()> request;
        int status;
        const char* subStatus;
    } cases[] = {
        {"second open of a channel", [&] { return standardRequest("open", 1); }, 403, "invalidOperation"},
        {"close of a channel never opened", [&] { return standardRequest("close", 7); }, 400, "badParameters"},
    };
    for (const Case& c : cases) {
        RawResponse response = c.request();
        EXPECT_EQ(response.status, c.status) << c.what << "\n" << response.raw;
        EXPECT_EQ(response.headers["content-type"], "application/xml") << c.what;
        EXPECT_NE(response.body.find(std::string("<subStatusCode>") + c.subStatus + "</subStatusCode>"),
                  std::string::npos)
            << c.what << "\n"
            << response.body;
    }
    // Without credentials: the standard challenge, and nothing reaches the gateway.
    size_t seenBefore = filter.seen().size();
    RawResponse challenged = standardRequest("open", 3, "");
    EXPECT_EQ(challenged.status, 401);
    EXPECT_FALSE(challenged.headers["www-authenticate"].empty());
    EXPECT_EQ(filter.seen().size(), seenBefore);
    EXPECT_TRUE(waitForTalks(1));
}

TEST_F(Talk, TheGatewaysRefusalDecidesTheAnswer)
{
    struct Case {
        const char* what;
        int talkResult, talkStatus, describeResult, openResult, pushResult;
        int status;
        const char* subStatus;
    } cases[] = {
        // The XML document takes its group's status: 403, not the 401 of the JSON form.
        {"credentials refused", 0x40000003, 401, 0, 0, 0, 403, "badAuthorization"},
        {"refused otherwise", 0x30000014, 403, 0, 0, 0, 500, "internalError"},
        {"device refuses the DESCRIBE", 0x1930844, 0, 0x30000014, 0, 0, 500, "internalError"},
        {"OnOpen fails", 0x1930844, 0, 0, 0x1930811, 0, 500, "internalError"},
        {"pushStream fails", 0x1930844, 0, 0, 0, 0x1930811, 500, "internalError"},
    };
    for (const Case& c : cases) {
        filter.talkResult = c.talkResult;
        filter.talkStatusOnRefusal = c.talkStatus;
        filter.describeResult = c.describeResult;
        sink.openResult = c.openResult;
        sink.pushResult = c.pushResult;
        RawResponse response;
        EXPECT_TRUE(openTalk(1, &response).empty()) << c.what;
        EXPECT_EQ(response.status, c.status) << c.what << "\n" << response.raw;
        EXPECT_NE(response.body.find(std::string("<subStatusCode>") + c.subStatus + "</subStatusCode>"),
                  std::string::npos)
            << c.what << "\n"
            << response.body;
        EXPECT_TRUE(waitForTalks(0)) << c.what << ": the refused talk left a stream open";
    }
}

TEST_F(Talk, RefusalsOnTheAudioChannel)
{
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    struct Case {
        const char* what;
        std::string request;
        const char* statusLine;
        const char* subStatus;
    } cases[] = {
        {"wrong session id", linkRequest("GET", 1, sessionId + "9"), "HTTP/1.1 403 403 Forbidden", "invalidOperation"},
        {"no talk on the channel", linkRequest("PUT", 2, sessionId), "HTTP/1.1 403 403 Forbidden", "invalidOperation"},
        {"unknown URL", talkRequest("GET", "/QUMEX/Other", host(), digestHeader()), "HTTP/1.1 403 403 Forbidden",
         "invalidOperation"},
        {"DELETE", talkRequest("DELETE", audioTarget(1, sessionId), host(), digestHeader()),
         "HTTP/1.1 403 403 Forbidden", "invalidOperation"},
        {"no credentials", linkRequest("GET", 1, sessionId, ""), "HTTP/1.1 401 401 Unauthorized", "badAuthorization"},
        // The channel reads the head's fields only from a request that names its
        // length: audio clients send "Content-Length: 0".
        {"no Content-Length",
         "GET " + audioTarget(1, sessionId) + " HTTP/1.1\r\nHost: " + host() + "\r\n" + digestHeader() + "\r\n",
         "HTTP/1.1 401 401 Unauthorized", "badAuthorization"},
    };
    for (const Case& c : cases) {
        nettest::TestClient client;
        ASSERT_TRUE(client.connectTo(audioPort));
        ASSERT_TRUE(client.send(c.request));
        std::string reply = client.receiveAll(5000);  // the channel closes after one request
        EXPECT_EQ(reply.compare(0, strlen(c.statusLine), c.statusLine), 0) << c.what << "\n" << reply;
        EXPECT_NE(reply.find(std::string("<subStatusCode>") + c.subStatus), std::string::npos) << c.what << "\n"
                                                                                               << reply;
        if (strcmp(c.subStatus, "badAuthorization") == 0) {
            EXPECT_NE(reply.find("WWW-Authenticate: Digest qop=\"auth\", realm=\"test-realm\", nonce=\""),
                      std::string::npos)
                << reply;
        } else {
            EXPECT_NE(reply.find("<requestURL>"), std::string::npos) << reply;
        }
    }
    // A request the channel's parser refuses: answered and dropped at once.
    nettest::TestClient garbage;
    ASSERT_TRUE(garbage.connectTo(audioPort));
    ASSERT_TRUE(garbage.send(std::string(3000, 'x')));
    EXPECT_EQ(garbage.receiveAll(5000).compare(0, 24, "HTTP/1.1 400 Bad Request"), 0);

    // The talk itself is untouched, and an empty session id is let through:
    // clients that never learnt the id still reach their talk.
    EXPECT_TRUE(waitForTalks(1));
    AudioLink anyId;
    EXPECT_TRUE(anyId.open(audioPort, linkRequest("GET", 1, "")));
    EXPECT_EQ(anyId.head, kGetHead);
}

TEST_F(Talk, TheHundredFirstTalkIsRefusedWhileAHundredRun)
{
    sink.talkAudioBytes = 320;
    std::vector<std::unique_ptr<AudioLink>> links;
    for (int channel = 1; channel <= 100; ++channel) {
        std::string sessionId = openTalk(channel);
        ASSERT_FALSE(sessionId.empty()) << "channel " << channel;
        links.emplace_back(new AudioLink);
        ASSERT_TRUE(links.back()->open(audioPort, linkRequest("GET", channel, sessionId)));
        links.emplace_back(new AudioLink);
        ASSERT_TRUE(links.back()->open(audioPort, linkRequest("PUT", channel, sessionId) + clientAudioBytes(160)));
    }
    RawResponse refused;
    EXPECT_TRUE(openTalk(101, &refused).empty());
    EXPECT_NE(refused.body.find("<subStatusCode>noMoreTasksCanBeAdded</subStatusCode>"), std::string::npos)
        << refused.raw;
    EXPECT_EQ(GetServerConnectCount(server), 100);
    for (size_t i = 0; i < links.size(); i += 2) {
        EXPECT_EQ(links[i]->receive(320), deviceAudio(320)) << "talk " << i / 2 + 1;
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
    AudioLink listen;
    ASSERT_TRUE(listen.open(audioPort, linkRequest("GET", 1, sessionId)));
    {
        AudioLink speak;
        ASSERT_TRUE(speak.open(audioPort, linkRequest("PUT", 1, sessionId) + clientAudioBytes(160)));
        ASSERT_TRUE(sink.waitForClientAudio(160));
        speak.socket.close(true);  // vanishes with a reset
    }
    EXPECT_TRUE(waitForTalks(0));
    EXPECT_TRUE(listen.socket.waitForClose(5000));
}

TEST_F(Talk, AListenerThatHangsUpLeavesTheTalkToItsClose)
{
    sink.talkAudioBytes = 160 * 1000;
    sink.talkPacketIntervalMs = 2;
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    {
        AudioLink listen;
        ASSERT_TRUE(listen.open(audioPort, linkRequest("GET", 1, sessionId)));
        listen.receive(1600);
        listen.socket.close();
    }
    // A new listener takes over the upload link.
    AudioLink again;
    ASSERT_TRUE(again.open(audioPort, linkRequest("GET", 1, sessionId)));
    EXPECT_EQ(again.receive(1600).size(), 1600u);
    EXPECT_TRUE(waitForTalks(1));
    EXPECT_EQ(standardRequest("close", 1).status, 200);
    EXPECT_TRUE(waitForTalks(0));
}

TEST_F(Talk, AnIdleTalkIsDestroyedByTheTimeOutPasses)
{
    singleton<CHttpServerWrapper>::instance()->setTimeoutCheckSleeps(1);  // a pass every 100 ms
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    // Neither the device nor a client sends anything: gone after seven passes.
    EXPECT_TRUE(waitForTalks(0, 5000));
    EXPECT_EQ(standardRequest("close", 1).status, 400);  // nothing left to close
}

// The scripted client of a real talk: ten seconds of audio each way at the
// codec's pace, byte-exact, then the close.
TEST_F(Talk, TenSecondsOfAudioEachWayInRealTime)
{
    const size_t kTenSeconds = 160 * 500;  // PCMU: 160 bytes per 20 ms
    sink.talkAudioBytes = kTenSeconds;
    sink.talkPacketIntervalMs = 20;
    std::string sessionId = openTalk(1);
    ASSERT_FALSE(sessionId.empty());
    AudioLink listen;
    ASSERT_TRUE(listen.open(audioPort, linkRequest("GET", 1, sessionId)));
    AudioLink speak;
    ASSERT_TRUE(speak.open(audioPort, linkRequest("PUT", 1, sessionId)));

    std::string heard;
    std::thread listener([&] { heard = listen.receive(kTenSeconds, 5000); });
    const std::string said = clientAudioBytes(kTenSeconds);
    auto next = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < said.size(); offset += 160) {
        ASSERT_TRUE(speak.socket.send(said.substr(offset, 160)));
        next += std::chrono::milliseconds(20);
        std::this_thread::sleep_until(next);
    }
    listener.join();
    EXPECT_EQ(heard, deviceAudio(kTenSeconds));
    ASSERT_TRUE(sink.waitForClientAudio(kTenSeconds));
    EXPECT_EQ(sink.clientAudio(), said);
    EXPECT_EQ(sink.clientPacketSizes(), std::vector<int>(500, 160));
    EXPECT_EQ(standardRequest("close", 1).status, 200);
    EXPECT_TRUE(waitForTalks(0));
}
