// Requests that never reach the gateway's stream: the challenge, DELETE and
// unknown URLs, and the ResponseStatus answers of the dispatch.
#include <gtest/gtest.h>

#include <regex>

#include "PluginFixture.h"

namespace {

class Dispatch : public PluginFixture {};

}  // namespace

TEST_F(Dispatch, RequestWithoutCredentialsGetsTheDigestChallenge)
{
    RawResponse response = exchange(request("GET", "/QUMEX/ContentMgmt/download", "", ""));
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(response.statusLine, "HTTP/1.1 401 Unauthorized");
    EXPECT_EQ(response.headers["content-type"], "application/json");
    EXPECT_EQ(response.body,
              "{\"statusCode\":401,\"statusString\":\"Unauthorized\",\"subStatusCode\":\"badAuthorization\"}\n");
    EXPECT_TRUE(std::regex_match(response.headers["www-authenticate"],
                                 std::regex("Digest qop=\"auth\", realm=\"test-realm\", nonce=\"([0-9a-f]{2})+\", "
                                            "stale=\"FALSE\"")))
        << response.headers["www-authenticate"];
    EXPECT_TRUE(filter.seen().empty());
    EXPECT_TRUE(waitIdle());
}

TEST_F(Dispatch, DeleteIsForbiddenAndUnknownUrlsAnswerInvalidOperation)
{
    RawResponse deleted = exchange(request("DELETE", "/anything"));
    EXPECT_EQ(deleted.status, 403);
    EXPECT_EQ(deleted.headers["content-length"], "0");
    EXPECT_TRUE(deleted.complete && deleted.body.empty()) << deleted.raw;

    const std::string otherPut = "/QUMEX/System/TwoWayAudio/channels/1/mute";
    const struct {
        const char* method;
        std::string target;
        int status;
        const char* contentType;
        std::string fragment;
    } rows[] = {
        {"GET", "/QUMEX/Other?x=1", 403, "application/json", "\"subStatusCode\":\"invalidOperation\""},
        {"PUT", otherPut, 403, "application/xml",
         "<requestURL>" + otherPut +
             "</requestURL>\n<statusCode>4</statusCode>\n<statusString>Invalid Operation"
             "</statusString>\n<subStatusCode>invalidOperation</subStatusCode>"},
        // POST must name the JSON format; with it, only the download URL is known.
        {"POST", "/QUMEX/ContentMgmt/download", 400, "application/json", "\"subStatusCode\":\"badURLFormat\""},
        {"POST", "/QUMEX/Other?format=json", 403, "application/json", "\"subStatusCode\":\"invalidOperation\""},
    };
    for (const auto& row : rows) {
        RawResponse response = exchange(request(row.method, row.target, "{}"));
        EXPECT_EQ(response.status, row.status) << row.target;
        EXPECT_EQ(response.headers["content-type"], row.contentType) << row.target;
        EXPECT_NE(response.body.find(row.fragment), std::string::npos) << response.body;
    }
    EXPECT_TRUE(waitIdle());
}

TEST_F(Dispatch, MalformedJsonDownloadsAreRefusedWithoutOpeningAStream)
{
    const struct {
        std::string target, body;
        const char* subStatus;
    } rows[] = {
        {"/QUMEX/ContentMgmt/download?format=json&devIndex=short", "{}", "badURLFormat"},
        {jsonTarget(), "", "badParameters"},
        {jsonTarget(), "{not json", "badParameters"},
        // "playback" is rewritten, but without "starttime" the URI is refused.
        {jsonTarget(),
         "{\"downloadRequest\":{\"playbackURI\":\"rtsp://a/playback?endtime=1&devIndex=" + std::string(kDevIndex) +
             "\"}}",
         "badParameters"},
    };
    for (const auto& row : rows) {
        RawResponse response = exchange(request("POST", row.target, row.body));
        EXPECT_EQ(response.status, 400) << row.body;
        EXPECT_NE(response.body.find(std::string("\"subStatusCode\":\"") + row.subStatus + "\""), std::string::npos)
            << response.body;
    }
    EXPECT_TRUE(filter.seen().empty());
    EXPECT_EQ(sink.opened(), 0);
    EXPECT_TRUE(waitIdle());
}
