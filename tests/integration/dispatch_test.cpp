// Requests that never reach the gateway's stream: the challenge, DELETE and
// unknown URLs, and the ResponseStatus answers of the dispatch.
#include <gtest/gtest.h>

#include <cctype>

#include "PluginFixture.h"

namespace {

class Dispatch : public PluginFixture {};

bool isLowerHex(const std::string& text)
{
    for (char c : text) {
        if (!isdigit((unsigned char)c) && !(c >= 'a' && c <= 'f')) {
            return false;
        }
    }
    return !text.empty();
}

}  // namespace

TEST_F(Dispatch, RequestWithoutCredentialsGetsTheDigestChallenge)
{
    RawHttpClient client(port);
    RawResponse response = client.exchange(RawHttpClient::request("GET", "/QUMEX/ContentMgmt/download", ""));
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(response.statusLine, "HTTP/1.1 401 Unauthorized");
    EXPECT_EQ(response.headers["content-type"], "application/json");
    EXPECT_EQ(response.body, "{\"statusCode\":401,\"statusString\":\"Unauthorized\",\"subStatusCode\":\"badAuthorization\"}\n");

    const std::string& challenge = response.headers["www-authenticate"];
    const std::string prefix = "Digest qop=\"auth\", realm=\"test-realm\", nonce=\"";
    const std::string suffix = "\", stale=\"FALSE\"";
    ASSERT_EQ(challenge.compare(0, prefix.size(), prefix), 0) << challenge;
    ASSERT_GT(challenge.size(), prefix.size() + suffix.size());
    std::string nonce = challenge.substr(prefix.size(), challenge.size() - prefix.size() - suffix.size());
    EXPECT_EQ(challenge.substr(challenge.size() - suffix.size()), suffix);
    EXPECT_TRUE(isLowerHex(nonce)) << nonce;
    EXPECT_EQ(nonce.size() % 2, 0u);
    EXPECT_TRUE(filter.seen().empty());
    EXPECT_TRUE(waitIdle());
}

TEST_F(Dispatch, DeleteIsForbiddenAfterAuthentication)
{
    RawHttpClient client(port);
    RawResponse response = client.exchange(RawHttpClient::request("DELETE", "/anything", "", digestHeader()));
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(response.status, 403);
    EXPECT_EQ(response.headers["content-length"], "0");
    EXPECT_TRUE(response.body.empty());
    EXPECT_TRUE(waitIdle());
}

TEST_F(Dispatch, UnknownUrlsAnswerInvalidOperation)
{
    RawHttpClient client(port);
    RawResponse get = client.exchange(RawHttpClient::request("GET", "/QUMEX/Other?x=1", "", digestHeader()));
    EXPECT_EQ(get.status, 403);
    EXPECT_EQ(get.headers["content-type"], "application/json");
    EXPECT_NE(get.body.find("\"subStatusCode\":\"invalidOperation\""), std::string::npos);

    RawResponse put = client.exchange(
        RawHttpClient::request("PUT", "/QUMEX/System/TwoWayAudio/channels/1/open", "", digestHeader()));
    EXPECT_EQ(put.status, 403);
    EXPECT_EQ(put.headers["content-type"], "application/xml");
    EXPECT_NE(put.body.find("<subStatusCode>invalidOperation</subStatusCode>"), std::string::npos);
    EXPECT_NE(put.body.find("<requestURL>/QUMEX/System/TwoWayAudio/channels/1/open</requestURL>"), std::string::npos);

    // POST must name the JSON format; with it, only the download URL is known.
    RawResponse noFormat =
        client.exchange(RawHttpClient::request("POST", "/QUMEX/ContentMgmt/download", "{}", digestHeader()));
    EXPECT_EQ(noFormat.status, 400);
    EXPECT_NE(noFormat.body.find("\"subStatusCode\":\"badURLFormat\""), std::string::npos);
    RawResponse otherPost =
        client.exchange(RawHttpClient::request("POST", "/QUMEX/Other?format=json", "{}", digestHeader()));
    EXPECT_EQ(otherPost.status, 403);
    EXPECT_TRUE(waitIdle());
}

TEST_F(Dispatch, MalformedJsonDownloadsAreRefusedWithoutOpeningAStream)
{
    RawHttpClient client(port);
    std::string target = jsonDownloadTarget();
    struct Case {
        std::string target;
        std::string body;
        int status;
        const char* subStatus;
    } cases[] = {
        {"/QUMEX/ContentMgmt/download?format=json&devIndex=short", jsonDownloadBody("&name=a"), 400, "badURLFormat"},
        {target, "", 400, "badParameters"},
        {target, "{not json", 400, "badParameters"},
        {target, "{\"downloadRequest\":{\"playbackURI\":5}}", 400, "badParameters"},
        // "playback" is rewritten, but without "starttime" the URI is refused.
        {target, "{\"downloadRequest\":{\"playbackURI\":\"rtsp://a/playback?endtime=1&devIndex=" +
                     std::string(kDevIndex) + "\"}}", 400, "badParameters"},
    };
    for (const Case& c : cases) {
        RawResponse response = client.exchange(RawHttpClient::request("POST", c.target, c.body, digestHeader()));
        EXPECT_EQ(response.status, c.status) << c.body;
        EXPECT_NE(response.body.find(std::string("\"subStatusCode\":\"") + c.subStatus + "\""), std::string::npos)
            << response.body;
    }
    EXPECT_TRUE(filter.seen().empty());
    EXPECT_EQ(sink.opened(), 0);
    EXPECT_TRUE(waitIdle());
}
