// The request target the plug-in forwards, held to the request it made: a
// Digest response for one device's download or one channel's talk covers
// nothing else.
#include <gtest/gtest.h>

#include "app/RequestTarget.h"

TEST(RequestTarget, MustFitTheRequestTheGatewaySees)
{
    const std::string device = "e2e00000-0000-4000-8000-000000000001";
    const std::string download = "rtsp://127.0.0.1:554/Streaming/download?starttime=1&endtime=2&devIndex=" + device;
    const std::string talk = "/QUMEX/System/TwoWayAudio/channels/2?indexType=httpPort&httpPort=8080";
    struct Case {
        std::string digestUri;
        std::string url;
        bool matches;
    } cases[] = {
        {"/QUMEX/ContentMgmt/download?format=json&devIndex=" + device, download, true},
        {"/QUMEX/ContentMgmt/download", download, true},
        {"/QUMEX/ContentMgmt/download?format=json&devIndex=e2e00000-0000-4000-8000-00000000ca3e", download, false},
        {"/other", download, false},
        {"/QUMEX/System/TwoWayAudio/channels/2/open", talk, true},
        {"/QUMEX/System/TwoWayAudio/channels/2/audioData?sessionId=7", talk, true},
        {"/QUMEX/System/TwoWayAudio/channels/20/open", talk, false},
        {"/QUMEX/ContentMgmt/download", talk, false},
    };
    for (const Case& c : cases) {
        std::string reason;
        EXPECT_EQ(requestTargetMatches(c.digestUri, c.url, reason), c.matches) << c.digestUri << " for " << c.url;
    }
}
