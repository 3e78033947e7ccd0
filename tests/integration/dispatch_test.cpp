// Requests that never reach the gateway: the challenge, DELETE, unknown URLs
// and malformed downloads, and the ResponseStatus answers of the dispatch.
#include <gtest/gtest.h>

#include <regex>

#include "PluginFixture.h"

using Dispatch = PluginFixture;

TEST_F(Dispatch, RequestWithoutCredentialsGetsTheDigestChallenge)
{
    RawResponse response = exchange(request("GET", "/QUMEX/ContentMgmt/download", "", ""));
    ASSERT_TRUE(response.complete);
    EXPECT_EQ(response.raw.compare(0, 27, "HTTP/1.1 401 Unauthorized\r\n"), 0);
    EXPECT_EQ(response.header("content-type"), "application/json");
    EXPECT_EQ(response.body,
              "{\"statusCode\":401,\"statusString\":\"Unauthorized\",\"subStatusCode\":\"badAuthorization\"}\n");
    EXPECT_TRUE(std::regex_match(response.header("www-authenticate"),
                                 std::regex("Digest qop=\"auth\", realm=\"test-realm\", nonce=\"([0-9a-f]{2})+\", "
                                            "stale=\"FALSE\"")))
        << response.header("www-authenticate");
    EXPECT_TRUE(filter.seen().empty());
    EXPECT_TRUE(waitIdle());
}

// Whether a refusal is JSON or XML is part of the answer: each form's clients
// have always seen the mix below.
TEST_F(Dispatch, RefusalsBeforeTheGatewayAnswerInTheirOwnForm)
{
    RawResponse deleted = exchange(request("DELETE", "/anything"));
    EXPECT_EQ(deleted.status, 403);
    EXPECT_EQ(deleted.header("content-length"), "0");
    EXPECT_TRUE(deleted.complete && deleted.body.empty()) << deleted.raw;

    auto json = [](const char* subStatus) { return std::string("\"subStatusCode\":\"") + subStatus + "\""; };
    auto xml = [](const char* subStatus) { return std::string("<subStatusCode>") + subStatus + "</subStatusCode>"; };
    const std::string mute = "/QUMEX/System/TwoWayAudio/channels/1/mute";
    const std::string download = "/QUMEX/ContentMgmt/download";
    const struct {
        const char* method;
        std::string target, body;
        int status;
        std::string fragment;  // XML when it starts with "<"
    } rows[] = {
        {"GET", "/QUMEX/Other?x=1", "", 403, json("invalidOperation")},
        {"PUT", mute, "", 403,
         "<requestURL>" + mute +
             "</requestURL>\n<statusCode>4</statusCode>\n<statusString>Invalid Operation"
             "</statusString>\n" +
             xml("invalidOperation")},
        // POST must name the JSON format; with it, only the download URL is known.
        {"POST", download, "{}", 400, json("badURLFormat")},
        {"POST", "/QUMEX/Other?format=json", "{}", 403, json("invalidOperation")},
        {"POST", download + "?format=json&devIndex=short", "{}", 400, json("badURLFormat")},
        {"POST", jsonTarget(), "", 400, json("badParameters")},
        {"POST", jsonTarget(), "{not json", 400, json("badParameters")},
        // "playback" is rewritten, but without "starttime" the URI is refused.
        {"POST", jsonTarget(),
         "{\"downloadRequest\":{\"playbackURI\":\"rtsp://a/playback?endtime=1&devIndex=" + std::string(kDevIndex) +
             "\"}}",
         400, json("badParameters")},
        // The XML form: a missing or unparsable body in JSON, the rest in XML.
        {"GET", download, "", 400, json("badParameters")},
        {"GET", download, "<a><b></a>", 400, json("badParameters")},
        {"GET", download, "<downloadRequest/>", 400, xml("badParameters")},
        {"GET", download, "<downloadRequest><playbackURI>http//nothing</playbackURI></downloadRequest>", 400,
         xml("badParameters")},
    };
    for (const auto& row : rows) {
        RawResponse response = exchange(request(row.method, row.target, row.body));
        EXPECT_EQ(response.status, row.status) << row.target << " " << row.body;
        EXPECT_EQ(response.header("content-type"), row.fragment[0] == '<' ? "application/xml" : "application/json")
            << row.target << " " << row.body;
        EXPECT_NE(response.body.find(row.fragment), std::string::npos) << response.body;
    }
    EXPECT_TRUE(filter.seen().empty());
    EXPECT_EQ(sink.opened(), 0);
    EXPECT_TRUE(waitIdle());
}
