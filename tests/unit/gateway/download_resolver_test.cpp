// From the URL the plug-in hands to the filter chain to a recording, or to the
// refusal the client gets.
#include <gtest/gtest.h>

#include "download/DownloadResolver.h"
#include "base/IsoTime.h"
#include "media_fixture.h"

namespace {

const std::string kCamera = "0a1b2c3d-0000-4000-8000-00000000c0de";
const std::string kOther = "0a1b2c3d-0000-4000-8000-0000000000ff";

class DownloadResolverTest : public MediaFixture {
protected:
    void SetUp() override
    {
        MediaFixture::SetUp();
        addDevice(device(kCamera, 554),
                  R"({"recordings":[
                      {"name":"late.bin","starttime":"20260101T010000Z","endtime":"20260101T020000Z"},
                      {"name":"early.bin","starttime":"2026-01-01T00:00:00Z","endtime":"2026-01-01T01:00:00Z"}]})",
                  {{"early.bin", "0123456789"}, {"late.bin", "abc"}});
        addDevice(device(kOther, 8554), R"({"recordings":[]})", {});
        std::string error;
        ASSERT_TRUE(library.load(folder, devices, log, error)) << error;
    }

    // The refusal's REST error number, or 0 with the chosen recording's name.
    int resolve(const std::string& url, std::string& name)
    {
        PlaybackUri uri;
        std::string error;
        if (!parsePlaybackUri(url, uri, error)) {
            return -1;
        }
        ResolvedDownload download;
        Refusal refusal;
        if (!resolveDownload(library, uri, download, refusal)) {
            return refusal.restError;
        }
        name = download.recording->name;
        return 0;
    }

    MediaLibrary library;
};

}  // namespace

TEST_F(DownloadResolverTest, PicksByTimeNameAndSize)
{
    std::string name;
    const std::string base = "rtsp://h/download?devIndex=" + kCamera;
    EXPECT_EQ(resolve(base + "&starttime=20260101T005959Z&endtime=20260101T013000Z", name), 0);
    EXPECT_EQ(name, "early.bin") << "the earliest overlapping recording comes first";
    EXPECT_EQ(resolve(base + "&starttime=20260101T000000Z&endtime=20260101T030000Z&name=late.bin&size=3", name), 0);
    EXPECT_EQ(name, "late.bin");
    EXPECT_EQ(resolve(base + "&starttime=20260101T000000Z&endtime=20260101T030000Z&name=late.bin&size=4", name),
              RestError::kNoRecord);
    EXPECT_EQ(resolve(base + "&starttime=20260101T020000Z&endtime=20260101T030000Z", name), RestError::kNoRecord)
        << "a range that only touches the end of a recording does not overlap it";
}

TEST_F(DownloadResolverTest, RefusesWithTheFittingRestError)
{
    const std::string times = "&starttime=20260101T000000Z&endtime=20260101T010000Z";
    const std::string camera = "rtsp://h/download?devIndex=" + kCamera;
    const std::pair<std::string, int> rows[] = {
        {"rtsp://h/download?devIndex=ffffffff-0000-4000-8000-000000000000" + times, RestError::kBadDevIndex},
        {"rtsp://127.0.0.1:9/download?indexType=rtspPort&rtspPort=9" + times, RestError::kBadDevIndex},
        {"rtsp://h/download?" + times.substr(1), RestError::kBadParameters},
        {camera + "&starttime=20260101T000000Z", RestError::kBadParameters},
        {camera + "&starttime=20260230T000000Z&endtime=20260301T0Z", RestError::kIsoTimeFormatError},
        {camera + "&starttime=20260101T010000Z&endtime=20260101T000000Z", RestError::kTimeRangeError},
        {camera + times + "&size=12kB", RestError::kBadParameters},
        {"rtsp://h/download?devIndex=" + kOther + times, RestError::kNoRecord},
        {"http://h/download?devIndex=" + kCamera + times, -1},
    };
    for (const auto& row : rows) {
        std::string name;
        EXPECT_EQ(resolve(row.first, name), row.second) << row.first;
    }
}

TEST(IsoTimeParsing, AcceptsBasicAndExtendedUtcAndRefusesImpossibleDates)
{
    int64_t seconds = 0;
    ASSERT_TRUE(parseIsoTime("20260101T000000Z", seconds));
    EXPECT_EQ(seconds, 1767225600);
    ASSERT_TRUE(parseIsoTime("2026-01-01T00:00:01Z", seconds));
    EXPECT_EQ(seconds, 1767225601);
    EXPECT_EQ(formatIsoTime(1767225600), "20260101T000000Z");
    for (const char* bad :
         {"20260230T000000Z", "20260101T240000Z", "2026-0101T000000Z", "20260101", "", "20260101T000000+0100"}) {
        EXPECT_FALSE(parseIsoTime(bad, seconds)) << bad;
    }
}

TEST_F(MediaFixture, ABadIndexEntryIsSkippedUnlessStrict)
{
    addDevice(device(kCamera, 554), R"({"recordings":[{"name":"gone.bin","starttime":"20260101T000000Z",
                                        "endtime":"20260101T010000Z"},
                                       {"name":"a.bin","starttime":"20260101T000000Z",
                                        "endtime":"20260101T010000Z"}]})",
              {{"a.bin", "recording"}});
    MediaLibrary library;
    std::string error;
    ASSERT_TRUE(library.load(folder, devices, log, error)) << error;
    ASSERT_NE(library.findByIndex(kCamera), nullptr);
    ASSERT_EQ(library.findByIndex(kCamera)->recordings.size(), 1u);
    EXPECT_EQ(library.findByIndex(kCamera)->recordings[0].name, "a.bin");

    EXPECT_FALSE(library.load(folder, devices, log, error, true));
    EXPECT_NE(error.find("recordings.json: recordings[0].name"), std::string::npos) << error;
}
