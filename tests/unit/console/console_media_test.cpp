// What the console does to bytes on their way to the browser: ranges past the
// stream head, safe file names, and the device's codecs.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "console/DownloadRelay.h"
#include "console/TalkTranscoder.h"

TEST(DeviceRange, MovesTheBrowsersRangePastTheStreamHead)
{
    bool asked = false;
    EXPECT_EQ(deviceRange("", 1000, asked), "bytes=40-");
    EXPECT_FALSE(asked);
    EXPECT_EQ(deviceRange("bytes=0-", 1000, asked), "bytes=40-");
    EXPECT_TRUE(asked);
    EXPECT_EQ(deviceRange("bytes=500-", 1000, asked), "bytes=540-");
    EXPECT_EQ(deviceRange("bytes=10-19", 1000, asked), "bytes=50-59");
    EXPECT_TRUE(asked);
    // A suffix counts from the recording's end and never reaches into the head.
    EXPECT_EQ(deviceRange("bytes=-100", 1000, asked), "bytes=940-");
    EXPECT_EQ(deviceRange("bytes=-5000", 1000, asked), "bytes=40-");
    EXPECT_TRUE(asked);
    // Past the end stays past the end: the plug-in answers 416.
    EXPECT_EQ(deviceRange("bytes=1000-", 1000, asked), "bytes=1040-");
}

TEST(DeviceRange, AnythingElseAsksForTheWholeRecording)
{
    for (const char* range : {"bytes=1-2,5-6", "bytes=5-1", "bytes=-0", "bytes=x-", "items=0-1", "bytes=1-2x",
                              "bytes=99999999999999999999-", "bytes=-"}) {
        bool asked = true;
        EXPECT_EQ(deviceRange(range, 1000, asked), "bytes=40-") << range;
        EXPECT_FALSE(asked) << range;
    }
}

TEST(DispositionName, KeepsPlainNamesAndNeutralisesTheRest)
{
    EXPECT_EQ(dispositionName("clip-a_1.bin"), "clip-a_1.bin");
    EXPECT_EQ(dispositionName("a\"b\r\nc.bin"), "a_b__c.bin");
    EXPECT_EQ(dispositionName("../x"), "recording.._x");
    EXPECT_EQ(dispositionName(""), "recording");
}

namespace {

std::vector<int16_t> tone(double hertz, size_t count)
{
    std::vector<int16_t> samples(count);
    for (size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<int16_t>(std::lround(8000 * std::sin(2 * M_PI * hertz * i / 8000)));
    }
    return samples;
}

// The relative error of a round trip, after the coder settled.
double roundTripError(const char* codec, size_t bytesPerSample)
{
    TalkTranscoder coder(*findTalkCodec(codec));
    EXPECT_TRUE(coder.usable()) << codec;
    const std::vector<int16_t> sent = tone(440, 1600);
    const std::string bytes = coder.encode(sent.data(), sent.size());
    EXPECT_EQ(bytes.size(), sent.size() / bytesPerSample) << codec;
    const std::vector<int16_t> back = coder.decode(bytes.data(), bytes.size());
    EXPECT_EQ(back.size(), sent.size()) << codec;
    double error = 0, power = 0;
    for (size_t i = 800; i < std::min(sent.size(), back.size()); ++i) {
        error += std::pow(sent[i] - back[i], 2);
        power += std::pow(sent[i], 2);
    }
    return std::sqrt(error / power);
}

}  // namespace

TEST(TalkTranscoder, G711RoundTripsCloselyAndG726Recognisably)
{
    EXPECT_LT(roundTripError("PCMU", 1), 0.05);
    EXPECT_LT(roundTripError("PCMA", 1), 0.05);
    // Four samples a byte at 16 kbit/s: the tone comes back, coarsely.
    TalkTranscoder coder(*findTalkCodec("G726-16"));
    const std::vector<int16_t> sent = tone(440, 1600);
    const std::string bytes = coder.encode(sent.data(), sent.size());
    EXPECT_EQ(bytes.size(), sent.size() / 4);
    TalkTranscoder decoder(*findTalkCodec("G726-16"));
    EXPECT_EQ(decoder.decode(bytes.data(), bytes.size()).size(), sent.size());
    EXPECT_EQ(whyConsoleCannotTalk(*findTalkCodec("G726-16")), "");
}

TEST(TalkTranscoder, G7221IsNotTalkedFromTheConsole)
{
    TalkTranscoder coder(*findTalkCodec("G7221"));
    EXPECT_FALSE(coder.usable());
    const int16_t samples[4] = {1, 2, 3, 4};
    EXPECT_EQ(coder.encode(samples, 4), "");
    EXPECT_NE(whyConsoleCannotTalk(*findTalkCodec("G7221")).find("G7221"), std::string::npos);
}
