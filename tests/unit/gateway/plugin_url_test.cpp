// The URL the plug-in hands the filter, read once: the suffix it appends is
// cut off exactly for the user whose credentials are checked, so that no text
// of the client's, wherever it stands, chooses a device, a client or a user.
#include <gtest/gtest.h>

#include "download/PlaybackUri.h"
#include "app/PluginUrl.h"

namespace {

const std::string kDeviceA = "aaaaaaaa-0000-4000-8000-000000000001";
const std::string kDeviceB = "bbbbbbbb-0000-4000-8000-000000000002";
const std::string kOwn =
    "rtsp://127.0.0.1:554/Streaming/tracks/101/download?starttime=20260101T000000Z"
    "&endtime=20260101T001000Z&devIndex=" +
    kDeviceA;

}  // namespace

TEST(PluginUrl, CutsExactlyWhatThePluginAppendsForTheVerifiedUser)
{
    PluginUrl split;
    std::string error;
    ASSERT_TRUE(splitPluginUrl(kOwn + "&clientIP=10.1.2.3&username=alic", "alice", split, error)) << error;
    EXPECT_EQ(split.own, kOwn);
    EXPECT_EQ(split.client.address, "10.1.2.3");
    // A one-character name leaves an empty one; no credentials, no user part.
    ASSERT_TRUE(splitPluginUrl(kOwn + "&clientIP=&username=", "a", split, error)) << error;
    EXPECT_EQ(split.own, kOwn);
    ASSERT_TRUE(splitPluginUrl(kOwn + "&clientIP=", "", split, error)) << error;
    EXPECT_EQ(split.client.address, "");
    // The plug-in copies names of up to 64 characters and appends nothing for longer ones.
    const std::string longest(64, 'u');
    ASSERT_TRUE(splitPluginUrl(kOwn + "&clientIP=&username=" + longest.substr(1), longest, split, error)) << error;
    ASSERT_TRUE(splitPluginUrl(kOwn + "&clientIP=", longest + "u", split, error)) << error;
    EXPECT_EQ(split.own, kOwn);
    EXPECT_FALSE(splitPluginUrl(kOwn + "&clientIP=&username=" + longest, longest + "u", split, error));
}

// Each of these is what a client can make the plug-in append by writing text
// before the `username="` the plug-in reads (the Digest reader verifies the
// real one), or into its own part of the URI.
TEST(PluginUrl, RefusesEveryUrlThatDoesNotEndAsThePluginWritesIt)
{
    const std::string hostile[] = {
        // xusername="&devIndex=B&clientIP=6.6.6.6X", username="alice"
        kOwn + "&clientIP=&username=&devIndex=" + kDeviceB + "&clientIP=6.6.6.6",
        kOwn + "&clientIP=&username=ali",                        // another user's cut
        kOwn + "&clientIP=&username=alic&devIndex=" + kDeviceB,  // text after the name
        kOwn + "&username=alic",                                 // no client part
        kOwn + "&clientIP=1.2.3.4&x=y&username=alic",            // an "&" inside the client part
        kOwn,                                                    // a request line cut short by injected heads
        "",
    };
    for (const std::string& url : hostile) {
        PluginUrl split;
        std::string error;
        EXPECT_FALSE(splitPluginUrl(url, "alice", split, error)) << url;
        EXPECT_FALSE(error.empty());
    }
}

// The client part names at most a client address, and only a valid one; its
// text is escaped for the log, bounded, and never becomes a parameter.
TEST(PluginUrl, TheForwardedClientChoosesNothing)
{
    struct Case {
        std::string forwarded;  // as it arrives after "&clientIP="
        std::string address;
        bool untrusted;
    } cases[] = {
        {"10.1.2.3", "10.1.2.3", false},
        {"2001:db8::7", "2001:db8::7", false},
        {"203.0.113.7,%20127.0.0.2", "203.0.113.7", false},  // a proxy's list, escaped by the plug-in
        {"%20198.51.100.1%20,x", "198.51.100.1", false},
        {"a%26devIndex%3D" + kDeviceB, "", true},
        {"%2526", "", true},
        {"1.2.3.4%0D%0AX:%20y", "", true},
        {std::string(200, '9'), "", true},
        {"", "", false},
    };
    for (const Case& c : cases) {
        PluginUrl split;
        std::string error;
        ASSERT_TRUE(splitPluginUrl(kOwn + "&clientIP=" + c.forwarded + "&username=admi", "admin", split, error))
            << error;
        EXPECT_EQ(split.client.address, c.address) << c.forwarded;
        EXPECT_EQ(!split.client.untrusted.empty(), c.untrusted) << c.forwarded;
        EXPECT_LE(split.client.untrusted.size(), 70u);
        EXPECT_EQ(split.client.untrusted.find_first_of("\r\n\""), std::string::npos);
        PlaybackUri uri;
        ASSERT_TRUE(parsePlaybackUri(split.own, uri, error)) << error;
        EXPECT_EQ(uri.deviceIndex, kDeviceA) << c.forwarded;
        EXPECT_FALSE(uri.hasParam("clientIP") || uri.hasParam("username")) << c.forwarded;
    }
}

// Within the client's own part, a name given twice is refused: which of two
// values a reader takes is how one reader is played against another.
TEST(PluginUrl, ThePlaybackUriNamesEachParameterOnce)
{
    PlaybackUri uri;
    std::string error;
    const std::string hostile[] = {
        kOwn + "&devIndex=" + kDeviceB,
        kOwn + "&starttime=20260101T000000Z",
        "rtsp://127.0.0.1:554/x?name=a.bin&name=b.bin",
        "rtsp://127.0.0.1:554/x?rtspPort=8554&indexType=rtspPort&rtspPort=554",  // XML form's own port, and ours
        "rtsp://h/d?name=%zz",
        "rtsp://h/d?indexType=rtspPort&rtspPort=99999",
        "http://h/d?devIndex=" + kDeviceA,
    };
    for (const std::string& url : hostile) {
        EXPECT_FALSE(parsePlaybackUri(url, uri, error)) << url;
    }
    ASSERT_TRUE(parsePlaybackUri(kOwn + "&name=a%20b", uri, error)) << error;
    EXPECT_EQ(uri.param("name"), "a b");
    EXPECT_EQ(uri.deviceIndex, kDeviceA);
}
