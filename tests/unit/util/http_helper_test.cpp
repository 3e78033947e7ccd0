// getRecvAddress and response talk to the embedded HTTP server and are covered
// by the integration tests with a live server.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "util/HttpHelper.h"

using HttpWrapper::CHttpHelper;

namespace {

const char kDevIndex36[] = "0123456789abcdef0123456789abcdef0123";

}  // namespace

TEST(HttpHelper, DevIndexMustBe36Characters)
{
    CHttpHelper helper;
    char out[37];
    std::memset(out, 'Z', sizeof(out));
    const std::string base = "/QUMEX/ContentMgmt/download?devIndex=";
    ASSERT_TRUE(helper.GetDevIndexFromURL((base + kDevIndex36 + "&x=1").c_str(), out));
    EXPECT_STREQ(out, kDevIndex36);
    EXPECT_TRUE(helper.GetDevIndexFromURL((base + kDevIndex36).c_str(), out));
    EXPECT_TRUE(helper.GetDevIndexFromURL((base + kDevIndex36 + "?more").c_str(), out));

    std::memset(out, 'Z', sizeof(out));
    EXPECT_FALSE(helper.GetDevIndexFromURL((base + std::string(kDevIndex36, 35) + "&x=1").c_str(), out));
    EXPECT_FALSE(helper.GetDevIndexFromURL((base + kDevIndex36 + "4&x=1").c_str(), out));
    EXPECT_FALSE(helper.GetDevIndexFromURL("/a?devIndex", out));
    EXPECT_FALSE(helper.GetDevIndexFromURL("/a?other=1", out));
    EXPECT_EQ(out[0], 'Z');  // untouched on failure
}

TEST(HttpHelper, UrlPatternsAndComparison)
{
    CHttpHelper helper;
    const char* open = "/QUMEX/System/TwoWayAudio/channels/%d/open";
    EXPECT_TRUE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/1/open", open, 1));
    EXPECT_TRUE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/1/open?format=json", open, 1));
    EXPECT_FALSE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/01/open", open, 1));
    EXPECT_FALSE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/1/close", open, 1));
    EXPECT_FALSE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/1/open", open, 0));
    EXPECT_FALSE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/1/open", open, 5));

    int id = -1;
    EXPECT_TRUE(helper.GetIdNumFromURL("/a/3/b/7", "/a/%d/b/%d", 2, id));
    EXPECT_EQ(id, 7);
    EXPECT_TRUE(helper.GetIdNumFromURL("/x", "/a/%d", 1, id));
    EXPECT_EQ(id, 0);
    EXPECT_FALSE(helper.GetIdNumFromURL("/a/1", "/a/%d", 5, id));

    EXPECT_EQ(helper.CompareUrl("/a/b?c", "/a/b"), 0);
    EXPECT_NE(helper.CompareUrl("/a/b/", "/a/b"), 0);
    EXPECT_LT(helper.CompareUrl("/a/a", "/a/b"), 0);
    EXPECT_TRUE(helper.IsJsonURL("/d?x=1&format=json"));
    EXPECT_FALSE(helper.IsJsonURL("/d?format=xml"));
    EXPECT_FALSE(helper.IsJsonURL(nullptr));
}

// What the nonce carries is checked where it is read: the gateway decodes it in
// the end-to-end tests, and refuses every download when it cannot.
TEST(HttpHelper, NonceIsEvenLengthLowerCaseHexAndNeedsRoom)
{
    CHttpHelper helper;
    char nonce[64];
    ASSERT_TRUE(helper.CreateNonce(nonce, sizeof(nonce)));
    const std::string text = nonce;
    EXPECT_EQ(text.size() % 2, 0u);
    EXPECT_GE(text.size(), 48u);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos) << text;

    EXPECT_FALSE(helper.CreateNonce(nonce, 10));
    EXPECT_FALSE(helper.CreateNonce(nonce, static_cast<int>(text.size())));  // no room for the terminator
    EXPECT_FALSE(helper.CreateNonce(nullptr, 64));
}

TEST(HttpHelper, DigestResponseWithoutQop)
{
    CHttpHelper helper;
    // Computed with an independent MD5 tool: md5("GET:/a") is
    // 5751abcba1791d8fcc6fee3d0316871b, and the response is
    // md5("0123456789abcdef0123456789abcdef:n:5751abcba1791d8fcc6fee3d0316871b").
    const std::string ha1 = "0123456789abcdef0123456789abcdef";
    EXPECT_EQ(helper.GetDigestAuthVal("/a", "GET", "ignored", "n", ha1), "01dc253e7dc588e7721606c1e8f53810");
    // Only the first 32 characters of HA1 count.
    EXPECT_EQ(helper.GetDigestAuthVal("/a", "GET", "", "n", ha1 + "tail"), "01dc253e7dc588e7721606c1e8f53810");
}
