// Replies whose odd bytes the audio clients rely on (docs/compatibility.md,
// Q1 and Q5), pinned byte for byte.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "PluginFixture.h"
#include "talk/HttpUnstandardSessionMgr.h"

using KeptReplies = PluginFixture;

TEST_F(KeptReplies, TheAudioChannelsChallengeDoublesItsCodeAndEndsItsHeadWithAnEmptyLineOfItsOwn)
{
    const int audioPort = HttpWrapper::singleton<HttpWrapper::CHttpUnstandardSessionMgr>::instance()->getListenPort();
    nettest::TestClient client;
    ASSERT_TRUE(client.connectTo(audioPort) &&
                client.send("GET /QUMEX/System/TwoWayAudio/channels/1/audioData HTTP/1.1\r\nHost: x\r\n"
                            "Content-Length: 0\r\n\r\n"));
    const std::string reply = client.receiveAll(5000);
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(reply, parts,
                                 std::regex("HTTP/1\\.1 401 401 Unauthorized\r\nContent-Length: ([0-9]+)\r\n"
                                            "Content-Type: application/xml\r\n"
                                            "WWW-Authenticate: Digest qop=\"auth\", realm=\"test-realm\", "
                                            "nonce=\"[0-9a-f]+\", stale=\"FALSE\"\r\n\r\n\r\n\r\n(<[\\s\\S]*)")))
        << reply;
    // The length counts the document alone, not the line ends before it.
    EXPECT_EQ(std::stoul(parts[1].str()), parts[2].str().size());
    EXPECT_NE(parts[2].str().find("<subStatusCode>badAuthorization</subStatusCode>"), std::string::npos);
    EXPECT_TRUE(waitIdle());
}
