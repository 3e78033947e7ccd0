// The pure part of a JSON download request: reading the playback URI from the
// body, rewriting it to the download URI and checking what it must name.
#include <gtest/gtest.h>

#include <exception>
#include <string>

#include "session/DownloadUri.h"

using namespace HttpWrapper;

namespace {

const char kDevIndex[] = "8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41";

bool Read(const std::string& body, std::string& uri)
{
    return ReadJsonDownloadUri(body.data(), static_cast<int>(body.size()), uri);
}

}  // namespace

TEST(DownloadUri, ReadsThePlaybackUriAndRewritesItsFirstPlayback)
{
    std::string uri;
    ASSERT_TRUE(Read("{\"downloadRequest\":{\"playbackURI\":\"rtsp://h/playback/playback?starttime=1\"}}", uri));
    EXPECT_EQ(uri, "rtsp://h/download/playback?starttime=1");

    ASSERT_TRUE(Read(" { \"downloadRequest\" : { \"other\": 1, \"playbackURI\" : \"a\\u0062c\" } } ", uri));
    EXPECT_EQ(uri, "abc") << "escapes are decoded and other members ignored";
}

TEST(DownloadUri, ReadsOnlyTheGivenBytes)
{
    const std::string body = "{\"downloadRequest\":{\"playbackURI\":\"u\"}}";
    std::string uri;
    // The session passes the received bytes without a terminator: the length bounds the read.
    const std::string withTail = body + "garbage";
    EXPECT_TRUE(ReadJsonDownloadUri(withTail.data(), static_cast<int>(body.size()), uri));
    EXPECT_EQ(uri, "u");
    uri = "kept";
    EXPECT_FALSE(ReadJsonDownloadUri(body.data(), static_cast<int>(body.size()) - 1, uri));
    EXPECT_FALSE(ReadJsonDownloadUri(body.data(), 0, uri));
    EXPECT_FALSE(ReadJsonDownloadUri(nullptr, 10, uri));
    EXPECT_EQ(uri, "kept");
}

TEST(DownloadUri, RefusesBodiesOfAnotherShapeAndLeavesTheUri)
{
    const char* const bodies[] = {
        "",
        "not json",
        "[{\"downloadRequest\":{\"playbackURI\":\"u\"}}]",
        "{\"downloadRequest\":\"u\"}",
        "{\"downloadRequest\":{}}",
        "{\"downloadRequest\":{\"playbackURI\":42}}",
        "{\"downloadRequest\":{\"playbackURI\":null}}",
        "{\"DownloadRequest\":{\"playbackURI\":\"u\"}}",
    };
    for (const char* body : bodies) {
        std::string uri = "kept";
        EXPECT_FALSE(Read(body, uri)) << body;
        EXPECT_EQ(uri, "kept") << body;
    }
}

TEST(DownloadUri, DeepNestingIsRefusedLikeAnyBodyThatDoesNotParse)
{
    std::string uri = "kept";
    EXPECT_FALSE(Read(std::string(2000, '['), uri));
    EXPECT_FALSE(Read(std::string(33, '[') + std::string(33, ']'), uri));
    EXPECT_EQ(uri, "kept");
}

TEST(DownloadUri, ACompleteUriNamesDownloadTimesAndTheDevice)
{
    const std::string complete = std::string("rtsp://h/download?starttime=1&endtime=2&devIndex=") + kDevIndex;
    EXPECT_TRUE(IsCompleteDownloadUri(complete, kDevIndex));
    EXPECT_FALSE(IsCompleteDownloadUri(complete, "another-device"));
    EXPECT_FALSE(IsCompleteDownloadUri(std::string("rtsp://h/playback?starttime=1&endtime=2&") + kDevIndex, kDevIndex));
    EXPECT_FALSE(IsCompleteDownloadUri(std::string("rtsp://h/download?endtime=2&") + kDevIndex, kDevIndex));
    EXPECT_FALSE(IsCompleteDownloadUri(std::string("rtsp://h/download?starttime=1&") + kDevIndex, kDevIndex));
}

TEST(DownloadUri, RewriteChangesOnlyTheFirstPlayback)
{
    std::string uri = "playbackplayback";
    RewritePlaybackToDownload(uri);
    EXPECT_EQ(uri, "downloadplayback");
    uri = "rtsp://h/tracks/101";
    RewritePlaybackToDownload(uri);
    EXPECT_EQ(uri, "rtsp://h/tracks/101");
}
