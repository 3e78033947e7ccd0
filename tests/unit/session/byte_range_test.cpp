// A client's Range as the plug-in reads it and forwards it, and the gateway's
// report of what it serves as the plug-in trusts it.
#include <gtest/gtest.h>

#include <string.h>

#include <climits>

#include "session/ByteRange.h"

using namespace HttpWrapper;

TEST(ByteRange, OneRangeIsReadAndForwardedEverythingElseIgnored)
{
    const struct {
        const char* header;
        const char* forwarded;  // nullptr: ignored
    } rows[] = {
        {"bytes=0-", "bytes=0-"},
        {"bytes=100-199", "bytes=100-199"},
        {"bytes=-500", "bytes=-500"},
        {" Bytes=7-7\t", "bytes=7-7"},
        {"bytes=0000000000000000000000012-", "bytes=12-"},
        // Past 64 bits: a start beyond every body, an end or a suffix covering all of it.
        {"bytes=99999999999999999999999-", "bytes=18446744073709551615-"},
        {"bytes=5-99999999999999999999999", "bytes=5-18446744073709551615"},
        {"bytes=-99999999999999999999999", "bytes=-18446744073709551615"},
        {"bytes=9-5", nullptr},
        {"bytes=0-1,5-9", nullptr},
        {"bytes=0-,", nullptr},
        {"bytes=-", nullptr},
        {"bytes=", nullptr},
        {"bytes=--5", nullptr},
        {"bytes=1-2x", nullptr},
        {"items=0-1", nullptr},
        {"bytes 0-1", nullptr},
    };
    for (const auto& row : rows) {
        CByteRangeRequest range;
        bool parsed = ParseRangeHeader(row.header, range);
        EXPECT_EQ(parsed, row.forwarded != nullptr) << row.header;
        if (parsed && row.forwarded != nullptr) {
            EXPECT_EQ(DownloadRangeHead(range, false, ""), row.forwarded) << row.header;
        }
    }
}

TEST(ByteRange, OnlyATagTheGatewayCouldHaveIssuedIsComparedOthersMatchNothing)
{
    CByteRangeRequest range;
    ASSERT_TRUE(ParseRangeHeader("bytes=40-", range));
    const struct {
        const char* ifRange;
        const char* forwarded;
    } rows[] = {
        {"\"2f-18a4-9c0e\"", "bytes=40-;if-range=\"2f-18a4-9c0e\""},
        {" \"2f-18a4\" ", "bytes=40-;if-range=\"2f-18a4\""},
        {"W/\"2f-18a4\"", "bytes=40-;if-range="},
        {"Wed, 21 Oct 2026 07:28:00 GMT", "bytes=40-;if-range="},
        {"\"a;if-range=b\"", "bytes=40-;if-range="},
        {"\"\"", "bytes=40-;if-range="},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(DownloadRangeHead(range, true, row.ifRange), row.forwarded) << row.ifRange;
    }
}

TEST(ByteRange, TheGatewaysReportIsTrustedOnlyWhenItMakesSense)
{
    const unsigned long long kBody = 1040;
    std::string info(1620, '\0');
    CServedRange served;
    EXPECT_EQ(ReadServedRange(info.data(), info.size(), kBody, served), RANGE_RECORD_ABSENT);

    auto record = [&](int version, int outcome, unsigned long long first, unsigned long long last,
                      const std::string& tag) {
        info.assign(1620, '\0');
        memcpy(&info[1520], "MGBR", 4);
        info[1524] = (char)version;
        info[1525] = (char)outcome;
        for (int i = 0; i < 8; ++i) {
            info[1528 + i] = (char)(first >> (8 * i));
            info[1536 + i] = (char)(last >> (8 * i));
        }
        memcpy(&info[1544], tag.data(), std::min<size_t>(tag.size(), 64));
    };
    record(1, CServedRange::PART, 20, 1039, "\"t-1\"");
    ASSERT_EQ(ReadServedRange(info.data(), info.size(), kBody, served), RANGE_RECORD_VALID);
    EXPECT_EQ(served.outcome, CServedRange::PART);
    EXPECT_EQ(served.first, 20u);
    EXPECT_EQ(served.last, 1039u);
    EXPECT_EQ(served.entityTag, "\"t-1\"");
    EXPECT_EQ(ReadServedRange(info.data(), 1600, kBody, served), RANGE_RECORD_ABSENT) << "a short block";

    const struct {
        int version, outcome;
        unsigned long long first, last;
        std::string tag;
        ServedRangeRecord expected;
    } rows[] = {
        {1, CServedRange::UNSATISFIABLE, 0, 0, "", RANGE_RECORD_VALID},
        {1, CServedRange::WHOLE, 7, 3, "\"t\"", RANGE_RECORD_VALID},  // no part: the offsets mean nothing
        {1, CServedRange::PART, 0, kBody, "\"t\"", RANGE_RECORD_INVALID},
        {1, CServedRange::PART, 9, 8, "\"t\"", RANGE_RECORD_INVALID},
        {1, 3, 0, 0, "\"t\"", RANGE_RECORD_INVALID},
        {2, CServedRange::PART, 0, 1, "\"t\"", RANGE_RECORD_INVALID},
        {1, CServedRange::PART, 0, 1, std::string(64, 'x'), RANGE_RECORD_INVALID},
        {1, CServedRange::PART, 0, 1, "\"t\"\r\nX: y", RANGE_RECORD_INVALID},
    };
    for (const auto& row : rows) {
        record(row.version, row.outcome, row.first, row.last, row.tag);
        EXPECT_EQ(ReadServedRange(info.data(), info.size(), kBody, served), row.expected)
            << row.version << " " << row.outcome << " " << row.first << "-" << row.last << " " << row.tag;
    }
}
