// getRecvAddress and response talk to the embedded HTTP server and are covered
// by the integration tests with a live server, as is the nonce's text.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "util/HttpHelper.h"

using HttpWrapper::CHttpHelper;

TEST(HttpHelper, DevIndexMustBe36Characters)
{
    const CHttpHelper helper;
    const std::string id = "0123456789abcdef0123456789abcdef0123";
    const std::string base = "/QUMEX/ContentMgmt/download?devIndex=";
    char out[37];
    for (const std::string& url : {base + id + "&x=1", base + id, base + id + "?more"}) {
        std::memset(out, 'Z', sizeof(out));
        ASSERT_TRUE(helper.GetDevIndexFromURL(url.c_str(), out)) << url;
        EXPECT_EQ(out, id);
    }
    std::memset(out, 'Z', sizeof(out));
    for (const std::string& url :
         {base + id.substr(1) + "&x=1", base + id + "4&x=1", std::string("/a?devIndex"), std::string("/a?other=1")}) {
        EXPECT_FALSE(helper.GetDevIndexFromURL(url.c_str(), out)) << url;
    }
    EXPECT_EQ(out[0], 'Z');  // untouched on failure
}

TEST(HttpHelper, UrlPatternsAndComparison)
{
    const CHttpHelper helper;
    const char* open = "/QUMEX/System/TwoWayAudio/channels/%d/open";
    const std::string url = "/QUMEX/System/TwoWayAudio/channels/1/open";
    EXPECT_TRUE(helper.CheckUrlWithVariable(url.c_str(), open, 1));
    EXPECT_TRUE(helper.CheckUrlWithVariable((url + "?format=json").c_str(), open, 1));
    EXPECT_FALSE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/01/open", open, 1));
    EXPECT_FALSE(helper.CheckUrlWithVariable("/QUMEX/System/TwoWayAudio/channels/1/close", open, 1));
    EXPECT_FALSE(helper.CheckUrlWithVariable(url.c_str(), open, 0));
    EXPECT_FALSE(helper.CheckUrlWithVariable(url.c_str(), open, 5));

    EXPECT_EQ(helper.CompareUrl("/a/b?c", "/a/b"), 0);
    EXPECT_NE(helper.CompareUrl("/a/b/", "/a/b"), 0);
    EXPECT_TRUE(helper.IsJsonURL("/d?x=1&format=json"));
    EXPECT_FALSE(helper.IsJsonURL("/d?format=xml"));
    EXPECT_FALSE(helper.IsJsonURL(nullptr));
}

TEST(HttpHelper, NonceNeedsRoomForItsTerminator)
{
    const CHttpHelper helper;
    char nonce[64];
    ASSERT_TRUE(helper.CreateNonce(nonce, sizeof(nonce)));
    const int length = static_cast<int>(std::strlen(nonce));
    EXPECT_TRUE(helper.CreateNonce(nonce, length + 1));
    EXPECT_FALSE(helper.CreateNonce(nonce, length));
    EXPECT_FALSE(helper.CreateNonce(nullptr, 64));
}

TEST(HttpHelper, DigestResponseWithoutQop)
{
    const CHttpHelper helper;
    // md5("GET:/a") is 5751abcba1791d8fcc6fee3d0316871b, and the response is
    // md5("0123456789abcdef0123456789abcdef:n:5751abcba1791d8fcc6fee3d0316871b").
    const std::string ha1 = "0123456789abcdef0123456789abcdef";
    EXPECT_EQ(helper.GetDigestAuthVal("/a", "GET", "ignored", "n", ha1), "01dc253e7dc588e7721606c1e8f53810");
    // Only the first 32 characters of HA1 count.
    EXPECT_EQ(helper.GetDigestAuthVal("/a", "GET", "", "n", ha1 + "tail"), "01dc253e7dc588e7721606c1e8f53810");
}
