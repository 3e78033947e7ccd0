// The access log: lines an operator's tools can split, a writer that loses no
// line while delivery threads record and the file is rotated under it, and
// refusals that a flood of requests cannot turn into a flood of bytes.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

#include "ops/AccessLog.h"
#include "base/GatewayMetrics.h"
#include "base/Logger.h"

namespace {

AccessEntry download()
{
    AccessEntry entry;
    entry.time = std::chrono::system_clock::from_time_t(1781524800) + std::chrono::milliseconds(42);
    entry.kind = "download";
    entry.client = "2001:db8::7";
    entry.user = "night \"shift\"";
    entry.device = "8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41";
    entry.recording = "lobby-0001.bin";
    entry.bytesSent = 3147002;
    entry.seconds = 1.23456;
    entry.outcome = "complete";
    return entry;
}

std::vector<std::string> linesOf(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

TEST(AccessLogFormat, CommonLinesKeepTheirColumnsAndJsonLinesReadBack)
{
    const std::string common = formatAccessEntry(download(), AccessLogFormat::kCommon);
    const size_t open = common.find('['), close = common.find(']');
    ASSERT_NE(close, std::string::npos) << common;
    EXPECT_EQ(common.substr(0, open), "2001:db8::7 - night%20%22shift%22 ");
    EXPECT_EQ(common.substr(open, 13), "[15/Jun/2026:") << "the local day of noon UTC, in any zone";
    EXPECT_EQ(common.substr(close),
              "] \"download 8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41 lobby-0001.bin\" - 3147002 0 1.235 complete\n");
    AccessEntry talk = download();
    talk.kind = "talk";
    talk.client.clear();
    talk.channel = 3;
    talk.bytesReceived = 160;
    talk.outcome = "closed";
    const std::string talkLine = formatAccessEntry(talk, AccessLogFormat::kCommon);
    EXPECT_NE(talkLine.find("- - night%20%22shift%22 ["), std::string::npos) << talkLine;
    EXPECT_NE(talkLine.find("\"talk 8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41 channel-3\" - 3147002 160 "),
              std::string::npos)
        << talkLine;

    Json::Value line;
    ASSERT_TRUE(Json::Reader().parse(formatAccessEntry(download(), AccessLogFormat::kJson), line));
    EXPECT_EQ(line["time"].asString(), "2026-06-15T12:00:00.042Z");
    EXPECT_EQ(line["user"].asString(), "night \"shift\"");
    EXPECT_EQ(line["recording"].asString(), "lobby-0001.bin");
    EXPECT_TRUE(line["range"].isNull());
    EXPECT_EQ(line["bytesSent"].asUInt64(), 3147002u);
    EXPECT_DOUBLE_EQ(line["seconds"].asDouble(), 1.235);
    ASSERT_TRUE(Json::Reader().parse(formatAccessEntry(talk, AccessLogFormat::kJson), line));
    EXPECT_EQ(line["channel"].asInt(), 3);
    EXPECT_FALSE(line.isMember("recording"));

    // A refused talk request whose URL names no channel keeps the columns.
    talk.channel = 0;
    talk.bytesSent = talk.bytesReceived = 0;
    talk.seconds = 0;
    talk.outcome = "refused_bad_request";
    EXPECT_NE(formatAccessEntry(talk, AccessLogFormat::kCommon)
                  .find("\"talk 8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41 -\" - 0 0 0.000 refused_bad_request\n"),
              std::string::npos);
    ASSERT_TRUE(Json::Reader().parse(formatAccessEntry(talk, AccessLogFormat::kJson), line));
    EXPECT_TRUE(line["channel"].isNull());
}

TEST(AccessLog, RefusalsAreWrittenWithinTheirRateWithTheClaimsCut)
{
    char folder[] = "/tmp/gateway-access-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/access.log";
    GatewayMetrics metrics;
    Logger log;
    log.setLevel(kLogError);  // the skipping is announced as a warning
    int64_t now = 1000;
    AccessLog accessLog(metrics, log, [&now] { return now; });
    std::string error;
    ASSERT_TRUE(accessLog.open(path, AccessLogFormat::kCommon, error)) << error;

    AccessEntry refused = download();
    refused.user = std::string(5000, 'u');  // as long as the plug-in lets a header be
    refused.recording = std::string(5000, '"');
    refused.bytesSent = 0;
    refused.outcome = "refused_unauthorized";
    const int kFlood = AccessLog::kMaxRefusalsPerSecond + 30;
    for (int i = 0; i < kFlood; ++i) {
        accessLog.recordRefusal(refused);
    }
    accessLog.record(download());  // a download's line is never held back by refusals
    now += 1;
    accessLog.recordRefusal(refused);  // a new second, a new allowance
    accessLog.close();

    const std::vector<std::string> lines = linesOf(path);
    ASSERT_EQ(lines.size(), static_cast<size_t>(AccessLog::kMaxRefusalsPerSecond + 2));
    EXPECT_EQ(metrics.accessLogRefusalsSkipped(), 30u);
    EXPECT_EQ(metrics.accessLogDropped(), 0u);
    size_t refusals = 0;
    for (const std::string& line : lines) {
        if (line.find(" refused_unauthorized") == std::string::npos) {
            continue;
        }
        ++refusals;
        // The claims are cut before they are escaped: a line stays short whatever the client sent.
        EXPECT_NE(line.find(" - " + std::string(AccessLog::kMaxClaimedText, 'u') + " ["), std::string::npos);
        EXPECT_LT(line.size(), 4 * 3 * AccessLog::kMaxClaimedText) << line;
    }
    EXPECT_EQ(refusals, static_cast<size_t>(AccessLog::kMaxRefusalsPerSecond + 1));
    EXPECT_EQ(system(("rm -rf '" + std::string(folder) + "'").c_str()), 0);
}

TEST(AccessLog, EveryLineFromManyThreadsLandsWholeAcrossARotation)
{
    char folder[] = "/tmp/gateway-access-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/access.log";
    GatewayMetrics metrics;
    Logger log;
    AccessLog accessLog(metrics, log);
    std::string error;
    ASSERT_TRUE(accessLog.open(path, AccessLogFormat::kJson, error)) << error;

    const int kThreads = 4, kEach = 500;
    std::vector<std::thread> recorders;
    for (int t = 0; t < kThreads; ++t) {
        recorders.emplace_back([&accessLog] {
            for (int i = 0; i < kEach; ++i) {
                accessLog.record(download());
            }
        });
    }
    ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);  // what logrotate does, then SIGHUP
    accessLog.reopen();
    for (std::thread& recorder : recorders) {
        recorder.join();
    }
    accessLog.record(download());  // after the reopen: it must land in the new file
    accessLog.close();

    std::vector<std::string> lines = linesOf(path + ".1");
    const std::vector<std::string> after = linesOf(path);
    EXPECT_FALSE(after.empty()) << "nothing was written to the reopened file";
    lines.insert(lines.end(), after.begin(), after.end());
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kEach + 1));
    EXPECT_EQ(metrics.accessLogDropped(), 0u);
    for (const std::string& text : lines) {
        Json::Value line;
        ASSERT_TRUE(Json::Reader().parse(text, line) && line["outcome"] == "complete") << text;
    }
    EXPECT_EQ(system(("rm -rf '" + std::string(folder) + "'").c_str()), 0);
}
