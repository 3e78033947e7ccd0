// Requests that never reach the gateway's stream: the challenge, DELETE and
// unknown URLs, and the ResponseStatus answers of the dispatch.
#include <gtest/gtest.h>

#include "PluginFixture.h"

namespace {

class Dispatch : public PluginFixture {};

}  // namespace

TEST_F(Dispatch, RequestWithoutCredentialsGetsTheDigestChallenge)
{
    RawHttpClient client(port);
    RawResponse response = client.exchange(RawHttpClient::request("GET", "/QUMEX/ContentMgmt/download", ""));
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(response.statusLine, "HTTP/1.1 401 Unauthorized");
    EXPECT_EQ(response.headers["content-type"], "application/json");
    EXPECT_EQ(response.body,
              "{\"statusCode\":401,\"statusString\":\"Unauthorized\",\"subStatusCode\":\"badAuthorization\"}\n");

    const std::string& challenge = response.headers["www-authenticate"];
    const std::string prefix = "Digest qop=\"auth\", realm=\"test-realm\", nonce=\"";
    const std::string suffix = "\", stale=\"FALSE\"";
    ASSERT_EQ(challenge.compare(0, prefix.size(), prefix), 0) << challenge;
    ASSERT_GT(challenge.size(), prefix.size() + suffix.size());
    std::string nonce = challenge.substr(prefix.size(), challenge.size() - prefix.size() - suffix.size());
    EXPECT_EQ(challenge.substr(challenge.size() - suffix.size()), suffix);
    EXPECT_EQ(nonce.find_first_not_of("0123456789abcdef"), std::string::npos) << nonce;
    EXPECT_EQ(nonce.size() % 2, 0u);
    EXPECT_FALSE(nonce.empty());
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
    const std::string otherPut = "/QUMEX/System/TwoWayAudio/channels/1/mute";
    const struct {
        const char* method;
        std::string target;
        int status;
        const char* contentType;
        std::string fragment;
    } rows[] = {
        {"GET", "/QUMEX/Other?x=1", 403, "application/json", "\"subStatusCode\":\"invalidOperation\""},
        {"PUT", otherPut, 403, "application/xml", "<subStatusCode>invalidOperation</subStatusCode>"},
        {"PUT", otherPut, 403, "application/xml", "<requestURL>" + otherPut + "</requestURL>"},
        // POST must name the JSON format; with it, only the download URL is known.
        {"POST", "/QUMEX/ContentMgmt/download", 400, "application/json", "\"subStatusCode\":\"badURLFormat\""},
        {"POST", "/QUMEX/Other?format=json", 403, "application/json", "\"subStatusCode\":\"invalidOperation\""},
    };
    RawHttpClient client(port);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const std::string body = std::string(row.method) == "POST" ? "{}" : "";
        RawResponse response = client.exchange(RawHttpClient::request(row.method, row.target, body, digestHeader()));
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.headers["content-type"], row.contentType);
        EXPECT_NE(response.body.find(row.fragment), std::string::npos) << response.body;
    }
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
        {target,
         "{\"downloadRequest\":{\"playbackURI\":\"rtsp://a/playback?endtime=1&devIndex=" + std::string(kDevIndex) +
             "\"}}",
         400, "badParameters"},
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
