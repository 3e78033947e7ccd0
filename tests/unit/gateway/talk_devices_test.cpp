// The gateway's talking devices: which channel a talk request names, the
// device's audio in its codec, the talk settings of the configuration, and a
// capture file that is a valid WAV after every write.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "config/ConfigFile.h"
#include "talk/TalkAudio.h"
#include "talk/TalkDevices.h"
#include "talk/SpeakingBudget.h"
#include "talk/WavFile.h"

namespace {

std::string scratchPath(const char* name)
{
    return static_cast<std::string>(testing::TempDir()) + "talk-" + std::to_string(getpid()) + "-" + name;
}

// A WAV of 16-bit PCM at the given rate, written by hand.
std::string writePcmWav(const char* name, const std::vector<int16_t>& samples, uint32_t rate = 8000)
{
    std::string path = scratchPath(name);
    std::ofstream out(path, std::ios::binary);
    auto le32 = [&](uint32_t v) { out.write(reinterpret_cast<const char*>(&v), 4); };
    auto le16 = [&](uint16_t v) { out.write(reinterpret_cast<const char*>(&v), 2); };
    const uint32_t bytes = static_cast<uint32_t>(samples.size()) * 2;
    out.write("RIFF", 4), le32(36 + bytes), out.write("WAVEfmt ", 8), le32(16);
    le16(kWavFormatPcm), le16(1), le32(rate), le32(rate * 2), le16(2), le16(16);
    out.write("data", 4), le32(bytes);
    out.write(reinterpret_cast<const char*>(samples.data()), bytes);
    return path;
}

}  // namespace

TEST(TalkDevices, TheChannelOfEachKindOfTalkUrl)
{
    struct Case {
        std::string url;
        int channel;
    } requests[] = {
        {"/QUMEX/System/TwoWayAudio/channels/12?indexType=httpPort&httpPort=8080&clientIP=&username=admi", 12},
        {"/QUMEX/System/TwoWayAudio/channels/1", 1},
        {"/QUMEX/System/TwoWayAudio/channels/0?x", 0},
        {"/QUMEX/System/TwoWayAudio/channels/01?x", 0},
        {"/QUMEX/System/TwoWayAudio/channels/1x?x", 0},
        {"/QUMEX/System/TwoWayAudio/channels/?x", 0},
        {"/other/TwoWayAudio/channels/1", 0},
    };
    for (const Case& c : requests) {
        EXPECT_EQ(talkChannelOfUrl(c.url), c.channel) << c.url;
    }
    TalkKey key;
    ASSERT_TRUE(talkKeyOfDescribe("rtsp://127.0.0.1:8080/dac/talk/3/TCP?indexType=httpPort&httpPort=8080", key));
    EXPECT_EQ(key, TalkKey(3, 8080));
    // A Host can say anything; the key is read from the end the plug-in writes.
    ASSERT_TRUE(
        talkKeyOfDescribe("rtsp://h/dac/talk/9/TCP?x:8080/dac/talk/3/TCP?indexType=httpPort&httpPort=8080", key));
    EXPECT_EQ(key, TalkKey(3, 8080));
    EXPECT_FALSE(talkKeyOfDescribe("rtsp://127.0.0.1:8080/dac/talk/3", key));
    EXPECT_FALSE(talkKeyOfDescribe("rtsp://h:1/dac/talk/3/TCP?indexType=httpPort&httpPort=1&x", key));
    EXPECT_FALSE(talkKeyOfDescribe("/dac/talk/3/TCP?indexType=httpPort&httpPort=1", key));
    ASSERT_TRUE(talkKeyOfUrl("/QUMEX/System/TwoWayAudio/channels/2?indexType=httpPort&httpPort=8080", key));
    EXPECT_EQ(key, TalkKey(2, 8080));
    EXPECT_FALSE(talkKeyOfUrl("/QUMEX/System/TwoWayAudio/channels/2?indexType=httpPort&httpPort=80&devIndex=x", key));
    EXPECT_EQ(talkVerbOfTarget("/QUMEX/System/TwoWayAudio/channels/2/open", 2), TalkVerb::kOpen);
    EXPECT_EQ(talkVerbOfTarget("/QUMEX/System/TwoWayAudio/channels/2/audioData?sessionId=1", 2), TalkVerb::kAudioData);
    EXPECT_EQ(talkVerbOfTarget("/QUMEX/System/TwoWayAudio/channels/2/close/open", 2), TalkVerb::kNone);
    EXPECT_EQ(talkVerbOfTarget("/QUMEX/System/TwoWayAudio/channels/3/open", 2), TalkVerb::kNone);
    TalkDevice device;
    device.devIndex = "8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41";
    device.channel = 7;
    EXPECT_EQ(talkChannelOfMediaUrl(makeTalkMediaUrl(device)), 7);
    EXPECT_EQ(talkChannelOfMediaUrl("file:///x/7"), 0);
}

TEST(TalkDevices, ConfigurationGivesChannelsByPlaceAndRefusesClashes)
{
    const std::string a = R"({"devIndex":"aaaaaaaa-0f4d-4e7a-9b3c-6d2e1f0a7b41")";
    const std::string b = R"({"devIndex":"bbbbbbbb-0f4d-4e7a-9b3c-6d2e1f0a7b41","rtspPort":555)";
    auto parse = [](const std::string& devices, GatewayConfig& config) {
        Json::Value root;
        Json::Reader().parse(R"({"media":{"devices":[)" + devices + "]}}", root);
        std::string error;
        return parseGatewayConfig(root, ConfigSource::kDefaults, config, error) ? std::string() : error;
    };
    GatewayConfig config;
    ASSERT_EQ(parse(a + "}," + b + R"(,"talk":{"codec":"PCMA","capture":false}})", config), "");
    EXPECT_EQ(config.devices[0].talk.channel, 1);
    EXPECT_EQ(config.devices[1].talk.channel, 2);
    EXPECT_EQ(config.devices[1].talk.codec, "PCMA");
    EXPECT_FALSE(config.devices[1].talk.capture);
    EXPECT_EQ(parse(a + R"(,"talk":{"channel":2}},)" + b + "}", config),
              "media.devices[1].talk.channel: channel 2 is used by another device");
    EXPECT_EQ(parse(a + R"(,"talk":{"codec":"OPUS"}})", config).rfind("media.devices[0].talk.codec:", 0), 0u);
    EXPECT_EQ(parse(a + R"(,"talk":{"volume":3}})", config).rfind("media.devices[0].talk", 0), 0u);
    EXPECT_EQ(parse(a + R"(,"talk":{"channel":2,"enabled":false}},)" + b + "}", config), "");
}

TEST(TalkAudio, SourcesAreEncodedToTheDeviceCodecOrRefusedByName)
{
    std::string audio, error;
    ASSERT_TRUE(loadTalkSource("", *findTalkCodec("PCMU"), audio, error)) << error;
    EXPECT_EQ(audio.size(), 8000u);  // the built-in tone: one second
    ASSERT_TRUE(loadTalkSource("", *findTalkCodec("G726-16"), audio, error)) << error;
    EXPECT_EQ(audio.size(), 2000u);
    EXPECT_FALSE(loadTalkSource("", *findTalkCodec("G7221"), audio, error));

    // Silence in A-law is 0xD5, in mu-law 0xFF; full scale hits the ends of the range.
    std::string silence = writePcmWav("silence.wav", std::vector<int16_t>(320, 0));
    ASSERT_TRUE(loadTalkSource(silence, *findTalkCodec("PCMA"), audio, error)) << error;
    EXPECT_EQ(audio, std::string(320, '\xD5'));
    ASSERT_TRUE(loadTalkSource(silence, *findTalkCodec("PCMU"), audio, error)) << error;
    EXPECT_EQ(audio, std::string(320, '\xFF'));

    std::string wideband = writePcmWav("wide.wav", std::vector<int16_t>(320, 0), 16000);
    EXPECT_FALSE(loadTalkSource(wideband, *findTalkCodec("PCMU"), audio, error));
    EXPECT_NE(error.find(wideband), std::string::npos);
    EXPECT_NE(error.find("8000 Hz mono"), std::string::npos) << error;
    EXPECT_FALSE(loadTalkSource(scratchPath("missing.wav"), *findTalkCodec("PCMU"), audio, error));
    EXPECT_EQ(findTalkCodec("pcmu"), nullptr);
    std::remove(silence.c_str());
    std::remove(wideband.c_str());
}

TEST(TalkCapture, EveryWriteLeavesAPlayableFileMissingAtMostItsLastSecond)
{
    std::string path = scratchPath("capture.wav");
    CaptureFile capture;
    std::string error;
    ASSERT_TRUE(capture.open(path, kWavFormatMulaw, error)) << error;
    std::string said;
    for (int packet = 0; packet < 120; ++packet) {
        std::string bytes(packet == 119 ? 81 : 160, static_cast<char>(0x10 + packet));
        ASSERT_TRUE(capture.append(bytes.data(), bytes.size()));
        said += bytes;
        // What a player finds if the talk ended right here: what was said, but for at most its last second.
        WavAudio wav;
        ASSERT_TRUE(readWavFile(path, wav, error)) << error;
        EXPECT_EQ(wav.formatTag, kWavFormatMulaw);
        EXPECT_EQ(wav.sampleRate, 8000u);
        ASSERT_LE(wav.data.size(), said.size());
        EXPECT_LT(said.size() - wav.data.size(), 8000u) << "packet " << packet;
        EXPECT_EQ(wav.data, said.substr(0, wav.data.size()));
    }
    capture.close();
    WavAudio wav;
    ASSERT_TRUE(readWavFile(path, wav, error));
    EXPECT_EQ(wav.data, said);
    std::remove(path.c_str());
}

TEST(TalkCapture, AClientAheadOfTheCodecsClockIsKeptOnlyAsFarAsTheClockAndTheSlackAllow)
{
    using namespace std::chrono;
    SpeakingBudget budget(8000, seconds(2));
    const SpeakingBudget::Clock::time_point start;
    EXPECT_EQ(budget.admit(20000, start), 16000u);                    // the slack's two seconds at once
    EXPECT_EQ(budget.admit(8000, start + milliseconds(500)), 4000u);  // half a second more
    EXPECT_EQ(budget.admit(160, start + milliseconds(500)), 0u);
    EXPECT_EQ(budget.dropped(), 8160u);
    EXPECT_EQ(budget.admit(160, start + seconds(10)), 160u);  // a client back in step loses nothing
}
