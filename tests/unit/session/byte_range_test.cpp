// A client's Range as the plug-in reads and forwards it, and the gateway's
// report of what it serves as the plug-in trusts it.
#include <gtest/gtest.h>

#include <string.h>

#include <ext/StreamBlockLayout.h>

#include "session/ByteRange.h"

using namespace HttpWrapper;
using namespace StreamBlock;

TEST(ByteRange, OneRangeIsForwardedEverythingElseIgnored)
{
    const char* const kMax = "18446744073709551615";
    const struct {
        const char *header, *ifRange;  // ifRange nullptr: none sent
        std::string forwarded;
    } rows[] = {
        {"bytes=0-", nullptr, "bytes=0-"},
        {"bytes=100-199", nullptr, "bytes=100-199"},
        {"bytes=-500", nullptr, "bytes=-500"},
        {" Bytes=7-7\t", nullptr, "bytes=7-7"},
        {"bytes=0000000000000000000000012-", nullptr, "bytes=12-"},
        // Past 64 bits: a start beyond every body, an end or a suffix that covers all of it.
        {"bytes=99999999999999999999999-", nullptr, std::string("bytes=") + kMax + "-"},
        {"bytes=5-99999999999999999999999", nullptr, std::string("bytes=5-") + kMax},
        {"bytes=-99999999999999999999999", nullptr, std::string("bytes=-") + kMax},
        // Only a tag the gateway could have issued is compared; any other matches nothing.
        {"bytes=40-", " \"2f-18a4-9c0e\" ", "bytes=40-;if-range=\"2f-18a4-9c0e\""},
        {"bytes=40-", "W/\"2f-18a4\"", "bytes=40-;if-range="},
        {"bytes=40-", "Wed, 21 Oct 2026 07:28:00 GMT", "bytes=40-;if-range="},
    };
    for (const auto& row : rows) {
        CByteRangeRequest range;
        ASSERT_TRUE(ParseRangeHeader(row.header, range)) << row.header;
        EXPECT_EQ(DownloadRangeHead(range, row.ifRange != nullptr, row.ifRange ? row.ifRange : ""), row.forwarded);
    }
    for (const char* ignored :
         {"bytes=9-5", "bytes=0-1,5-9", "bytes=0-,", "bytes=-", "bytes=", "bytes=--5", "bytes=1-2x", "items=0-1"}) {
        CByteRangeRequest range;
        EXPECT_FALSE(ParseRangeHeader(ignored, range)) << ignored;
    }
}

TEST(ByteRange, TheGatewaysReportIsTrustedOnlyWhenItMakesSense)
{
    const struct {
        int outcome;
        unsigned long long first, last;
        std::string tag;
        ServedRangeRecord expected;
    } rows[] = {
        {CServedRange::PART, 20, 1039, "\"t-1\"", RANGE_RECORD_VALID},
        {CServedRange::PART, 0, 1040, "\"t\"", RANGE_RECORD_INVALID},
        {3, 0, 0, "\"t\"", RANGE_RECORD_INVALID},
        {CServedRange::PART, 0, 1, std::string(64, 'x'), RANGE_RECORD_INVALID},
        {CServedRange::PART, 0, 1, "\"t\"\r\nX: y", RANGE_RECORD_INVALID},
    };
    for (const auto& row : rows) {
        std::string info(kInfoSize, '\0');
        memcpy(&info[kRangeOffset], kRangeMagic, kRangeMagicSize);
        info[kRangeVersionOffset] = kRangeVersion;
        info[kRangeOutcomeOffset] = static_cast<char>(row.outcome);
        writeLittleEndian(&info[kRangeFirstOffset], row.first, 8);
        writeLittleEndian(&info[kRangeLastOffset], row.last, 8);
        memcpy(&info[kRangeTagOffset], row.tag.data(), row.tag.size());
        CServedRange served;
        EXPECT_EQ(ReadServedRange(info.data(), info.size(), 1040, served), row.expected) << row.tag;
        EXPECT_EQ(ReadServedRange(info.data(), kRangeEnd - 1, 1040, served), RANGE_RECORD_ABSENT) << "a short block";
    }
    CServedRange served;
    EXPECT_EQ(ReadServedRange(std::string(kInfoSize, '\0').data(), kInfoSize, 1040, served), RANGE_RECORD_ABSENT);
}
