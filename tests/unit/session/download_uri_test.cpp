// The pure part of a JSON download request: reading the playback URI from the
// body, rewriting it to the download URI and checking what it must name.
#include <gtest/gtest.h>

#include <string>

#include "session/DownloadUri.h"
#include "util/NestingLimit.h"

using namespace HttpWrapper;

namespace {

bool Read(const std::string& body, std::string& uri)
{
    return ReadJsonDownloadUri(body.data(), static_cast<int>(body.size()), uri);
}

// A body that is valid and holds `openings` brackets in all.
std::string withOpenings(size_t openings)
{
    return "{\"downloadRequest\":{\"playbackURI\":\"u\",\"x\":" + std::string(openings - 2, '[') +
           std::string(openings - 2, ']') + "}}";
}

}  // namespace

TEST(DownloadUri, ReadsThePlaybackUriAndRewritesOnlyItsFirstPlayback)
{
    const struct {
        std::string body, uri;
    } rows[] = {
        {"{\"downloadRequest\":{\"playbackURI\":\"rtsp://h/playback/playback?starttime=1\"}}",
         "rtsp://h/download/playback?starttime=1"},
        {"{\"downloadRequest\":{\"playbackURI\":\"rtsp://h/tracks/101\"}}", "rtsp://h/tracks/101"},
        // Escapes are decoded, other members ignored, and a body of the most openings allowed is read.
        {" { \"downloadRequest\" : { \"other\": 1, \"playbackURI\" : \"a\\u0062c\" } } ", "abc"},
        {withOpenings(kMaxRequestOpenings), "u"},
    };
    for (const auto& row : rows) {
        std::string uri;
        EXPECT_TRUE(Read(row.body, uri)) << row.body;
        EXPECT_EQ(uri, row.uri);
    }
    // The session passes the received bytes without a terminator: the length bounds the read.
    const std::string body = "{\"downloadRequest\":{\"playbackURI\":\"u\"}}garbage";
    std::string uri;
    EXPECT_TRUE(ReadJsonDownloadUri(body.data(), static_cast<int>(body.size()) - 7, uri));
    EXPECT_EQ(uri, "u");
}

TEST(DownloadUri, RefusesBodiesOfAnotherShapeAndLeavesTheUri)
{
    const std::string whole = "{\"downloadRequest\":{\"playbackURI\":\"u\"}}";
    const std::string bodies[] = {
        "",
        "not json",
        whole.substr(0, whole.size() - 1),
        "[" + whole + "]",
        "{\"downloadRequest\":\"u\"}",
        "{\"downloadRequest\":{}}",
        "{\"downloadRequest\":{\"playbackURI\":42}}",
        "{\"downloadRequest\":{\"playbackURI\":null}}",
        "{\"DownloadRequest\":{\"playbackURI\":\"u\"}}",
        withOpenings(kMaxRequestOpenings + 1),
    };
    for (const std::string& body : bodies) {
        std::string uri = "kept";
        EXPECT_FALSE(Read(body, uri)) << body;
        EXPECT_EQ(uri, "kept") << body;
    }
    std::string uri = "kept";
    EXPECT_FALSE(ReadJsonDownloadUri(nullptr, 10, uri));
    EXPECT_EQ(uri, "kept");
}

TEST(DownloadUri, ACompleteUriNamesDownloadTimesAndTheDevice)
{
    const std::string device = "8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41";
    const std::string complete = "rtsp://h/download?starttime=1&endtime=2&devIndex=" + device;
    EXPECT_TRUE(IsCompleteDownloadUri(complete, device.c_str()));
    EXPECT_FALSE(IsCompleteDownloadUri(complete, "another-device"));
    for (const char* incomplete : {"rtsp://h/playback?starttime=1&endtime=2&", "rtsp://h/download?endtime=2&",
                                   "rtsp://h/download?starttime=1&"}) {
        EXPECT_FALSE(IsCompleteDownloadUri(std::string(incomplete) + device, device.c_str())) << incomplete;
    }
}
