// Digest verification as the gateway's filter chain runs it on the plug-in's
// forwarded "Authorization" values.
#include <gtest/gtest.h>

#include <functional>

#include "auth/DigestAuthenticator.h"
#include "auth/DigestCredentials.h"
#include "base/Md5.h"
#include "auth/PluginNonce.h"

namespace {

const int64_t kNow = 1767225600;  // 2026-01-01T00:00:00Z

struct Credentials {
    std::string user = "admin";
    std::string password = "secret";
    std::string realm = "media-gateway";
    std::string method = "POST";
    std::string uri = "/QUMEX/ContentMgmt/download?format=json";
    std::string nonce = encodePluginNonce(0x1a2b3c4d, kNow - 10);
    std::string qop = "auth";
    std::string nc = "00000001";

    std::string header() const
    {
        std::string ha1 = md5Hex(user + ":" + realm + ":" + password);
        std::string response = digestResponse(ha1, method, uri, nonce, nc, "0a4f113b", qop);
        std::string text = "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce +
                           "\", uri=\"" + uri + "\", algorithm=MD5, response=\"" + response + "\"";
        return qop.empty() ? text : text + ", qop=" + qop + ", nc=" + nc + ", cnonce=\"0a4f113b\"";
    }
};

const int64_t kStartedAt = kNow - 3600;

DigestAuthenticator makeAuthenticator()
{
    return DigestAuthenticator(
        "media-gateway", {{"admin", "secret"}}, 300, [] { return kNow; }, kStartedAt);
}

AuthDecision verify(const DigestAuthenticator& authenticator, const Credentials& credentials)
{
    return authenticator.verify("POST", credentials.header(), credentials.uri);
}

}  // namespace

TEST(DigestResponse, MatchesTheRfc2617AndRfc7616Examples)
{
    std::string ha1 = md5Hex("Mufasa:testrealm@host.com:Circle Of Life");
    EXPECT_EQ(digestResponse(ha1, "GET", "/dir/index.html", "dcd98b7102dd2f0e8b11d0f600bfb0c093", "00000001",
                             "0a4f113b", "auth"),
              "6629fae49393a05397450978507c4ef1");
    ha1 = md5Hex("Mufasa:http-auth@example.org:Circle of Life");
    EXPECT_EQ(digestResponse(ha1, "GET", "/dir/index.html", "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v", "00000001",
                             "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ", "auth"),
              "8ca523f5e9506fed4657c9700eebdbec");
}

TEST(DigestCredentialsParsing, KeepsQuotedCommasAndEscapesAndRefusesBrokenText)
{
    DigestCredentials credentials;
    std::string error;
    ASSERT_TRUE(
        parseDigestCredentials("Digest USERNAME=\"a\\\"b\", uri=\"/x?a=1,b=2\",nc=00000001", credentials, error))
        << error;
    EXPECT_EQ(credentials.get("username"), "a\"b");
    EXPECT_EQ(credentials.get("uri"), "/x?a=1,b=2");
    EXPECT_EQ(credentials.get("nc"), "00000001");

    EXPECT_FALSE(parseDigestCredentials("Basic YWRtaW46c2VjcmV0", credentials, error));
    EXPECT_FALSE(parseDigestCredentials("Digest realm=\"a\", realm=\"b\"", credentials, error));
    EXPECT_FALSE(parseDigestCredentials("Digest realm=\"open", credentials, error));
    EXPECT_FALSE(parseDigestCredentials("Digest realm=\"a\" nonce=\"b\"", credentials, error));
}

TEST(DigestAuthenticatorVerify, AcceptsCurrentCredentials)
{
    Credentials credentials;
    AuthDecision decision = verify(makeAuthenticator(), credentials);
    EXPECT_TRUE(decision.accepted) << decision.reason;
    EXPECT_EQ(decision.user, "admin");

    // A nonce is fresh up to its lifetime, and a small clock skew ahead.
    for (int64_t created : {kNow - 300, kNow + kNonceClockSkewSeconds}) {
        credentials.nonce = encodePluginNonce(1, created);
        decision = verify(makeAuthenticator(), credentials);
        EXPECT_TRUE(decision.accepted) << created - kNow << ": " << decision.reason;
    }
}

TEST(DigestAuthenticatorVerify, RefusesEveryForgedOrStaleVariant)
{
    const std::vector<std::pair<const char*, std::function<void(Credentials&)>>> variants = {
        {"wrong password", [](Credentials& c) { c.password = "guess"; }},
        {"unknown user", [](Credentials& c) { c.user = "mallory"; }},
        {"other realm", [](Credentials& c) { c.realm = "elsewhere"; }},
        {"computed for another method", [](Credentials& c) { c.method = "GET"; }},
        {"nonce older than its lifetime", [](Credentials& c) { c.nonce = encodePluginNonce(1, kNow - 301); }},
        {"nonce from the future",
         [](Credentials& c) { c.nonce = encodePluginNonce(1, kNow + kNonceClockSkewSeconds + 1); }},
        {"nonce not made by the plug-in", [](Credentials& c) { c.nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093"; }},
        {"unsupported qop", [](Credentials& c) { c.qop = "auth-int"; }},
        // A header without qop has no count: each replay of it would be as good as the first.
        {"no qop (RFC 2069)", [](Credentials& c) { c.qop.clear(); }},
        {"nonce from before the gateway started",
         [](Credentials& c) { c.nonce = encodePluginNonce(1, kStartedAt - 1); }},
    };
    for (const auto& variant : variants) {
        Credentials credentials;
        variant.second(credentials);
        EXPECT_FALSE(verify(makeAuthenticator(), credentials).accepted) << variant.first;
    }
    EXPECT_FALSE(makeAuthenticator().verify("POST", "", "/").accepted) << "no credentials";
}

// The response covers its "uri"; only a "uri" that is the request target byte
// for byte binds the response to this request.
TEST(DigestAuthenticatorVerify, TheUriMustBeTheRequestTargetByteForByte)
{
    Credentials credentials;
    credentials.uri = "/QUMEX/ContentMgmt/download";
    const std::string target = "/QUMEX/ContentMgmt/download?format=json&devIndex=b";
    for (const std::string& uri : {std::string("/QUMEX/ContentMgmt/download"), target + "&x=1", target + "#"}) {
        credentials.uri = uri;
        const AuthDecision decision = makeAuthenticator().verify("POST", credentials.header(), target);
        EXPECT_FALSE(decision.accepted) << uri;
        EXPECT_FALSE(decision.guessed) << uri;
    }
    credentials.uri = target;
    EXPECT_TRUE(makeAuthenticator().verify("POST", credentials.header(), target).accepted);
    credentials.password = "guess";
    EXPECT_TRUE(makeAuthenticator().verify("POST", credentials.header(), target).guessed);
}

TEST(PluginNonce, DecodesTheCreationTimeOfThePluginForm)
{
    // "1a2b3c4d:6955aab0" in Base64, written as lower-case hex pairs.
    const std::string nonce = "4d574579596a4e6a4e4751364e6a6b314e574668596a413d";
    int64_t createdAt = 0;
    ASSERT_TRUE(decodePluginNonceTime(nonce, createdAt));
    EXPECT_EQ(createdAt, 0x6955aab0);
    EXPECT_EQ(encodePluginNonce(0x1a2b3c4d, 0x6955aab0), nonce);

    // Empty, odd length, not hex, Base64 of bytes without the ":" form, Base64 cut short.
    for (const std::string& bad :
         {std::string(), std::string("4d5"), std::string("zz"), std::string("41414141"), nonce.substr(0, 46)}) {
        EXPECT_FALSE(decodePluginNonceTime(bad, createdAt)) << bad;
    }
}

// A header seen once cannot open anything again: each use of a nonce needs an
// nc of its own. Counts may arrive out of order (parallel connections of one
// client), never twice.
TEST(DigestReplay, EachCountOfANonceIsAcceptedOnce)
{
    DigestAuthenticator authenticator = makeAuthenticator();
    Credentials credentials;
    auto verifyWith = [&](const char* nc) {
        credentials.nc = nc;
        return verify(authenticator, credentials);
    };
    EXPECT_TRUE(verifyWith("00000001").accepted);
    AuthDecision replay = verifyWith("00000001");
    EXPECT_FALSE(replay.accepted);
    EXPECT_NE(replay.reason.find("replay"), std::string::npos) << replay.reason;
    EXPECT_TRUE(verifyWith("00000003").accepted);
    EXPECT_TRUE(verifyWith("00000002").accepted);  // late, but new
    EXPECT_FALSE(verifyWith("00000002").accepted);
    EXPECT_TRUE(verifyWith("00000800").accepted);
    EXPECT_FALSE(verifyWith("00000004").accepted);  // too far behind to tell: refused

    // A wrong password does not use a count up; another nonce counts on its own.
    credentials.password = "wrong";
    EXPECT_FALSE(verifyWith("00000900").accepted);
    credentials.password = "secret";
    EXPECT_TRUE(verifyWith("00000900").accepted);
    credentials.nonce = encodePluginNonce(0x55, kNow - 20);
    EXPECT_TRUE(verifyWith("00000001").accepted);
}
